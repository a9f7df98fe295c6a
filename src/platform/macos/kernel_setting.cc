#include "platform/kernel_setting.h"

#include <sys/sysctl.h>
#include <cstddef>

namespace zu::platform {

int32_t ReadKernelSetting(const char* name, uint32_t& value) {
  size_t size = sizeof value;
  return ::sysctlbyname(name, &value, &size, nullptr, 0);
}

int32_t WriteKernelSetting(const char* name, uint32_t value) {
  return ::sysctlbyname(name, nullptr, nullptr, &value, sizeof value);
}

}  // namespace zu::platform
