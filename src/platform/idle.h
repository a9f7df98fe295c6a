// How long nobody has used the machine.
#ifndef ZU_PLATFORM_IDLE_H_
#define ZU_PLATFORM_IDLE_H_

#include <cstdint>
#include <optional>

namespace zu::platform {

// In nanoseconds; absent when the system does not tell. Linux: blocks for two
// seconds at most.
std::optional<int64_t> ReadIdleTime_ns();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_IDLE_H_
