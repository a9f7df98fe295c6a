// The running system's version.
#ifndef ZU_PLATFORM_OS_VERSION_H_
#define ZU_PLATFORM_OS_VERSION_H_

#include <cstdint>

namespace zu::platform {

struct OsVersion {
  uint32_t major = 0;
  uint32_t minor = 0;
  uint32_t patch = 0;
};

// The product's version on macOS, the kernel's release on Linux. Numbers that
// the system does not tell are 0.
OsVersion ReadOsVersion();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_OS_VERSION_H_
