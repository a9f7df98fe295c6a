// What the system tells about one process.
#ifndef ZU_PLATFORM_PROCESS_FACTS_H_
#define ZU_PLATFORM_PROCESS_FACTS_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace zu::platform {

inline constexpr uint32_t kCpuTypeX86_64 = 0x01000007;
inline constexpr uint32_t kCpuTypeArm64 = 0x0100000C;

// The processor that the process's code is for, in Mach-O's numbers. Absent
// when the system does not tell.
std::optional<uint32_t> ReadCpuType(int32_t pid);

// The executable's path, at most 4095 bytes. Absent when the system does not
// tell (no such process, or it has no executable).
std::optional<std::string> ReadExecutablePath(int32_t pid);

// The calling process's name in UTF-8; absent when it has none.
std::optional<std::string> ReadProcessName();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_PROCESS_FACTS_H_
