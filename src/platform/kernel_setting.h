// The kernel's settings by name.
#ifndef ZU_PLATFORM_KERNEL_SETTING_H_
#define ZU_PLATFORM_KERNEL_SETTING_H_

#include <cstdint>

namespace zu::platform {

// A setting of 32 bits, by the system's dotted name. 0, or -1 with errno
// (ENOENT when there is no such setting).
int32_t ReadKernelSetting(const char* name, uint32_t& value);
int32_t WriteKernelSetting(const char* name, uint32_t value);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_KERNEL_SETTING_H_
