// Whose a process is.
#ifndef ZU_PLATFORM_PROCESS_OWNER_H_
#define ZU_PLATFORM_PROCESS_OWNER_H_

#include <cstdint>
#include <optional>

namespace zu::platform {

// The process's (effective) user; absent when there is no such process.
std::optional<uint32_t> ReadProcessOwner(int32_t pid);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_PROCESS_OWNER_H_
