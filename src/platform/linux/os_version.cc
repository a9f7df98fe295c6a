#include "platform/os_version.h"

#include <sys/utsname.h>
#include <algorithm>

#include "platform/linux/kernel_release.h"

namespace zu::platform {

OsVersion ParseKernelRelease(std::string_view release) {
  uint32_t numbers[3] = {0, 0, 0};
  size_t index = 0;
  for (const char c : release) {
    if (c >= '0' && c <= '9') {
      // Each part has three decimal places in the packed form; a long-lived
      // release series does count beyond them (4.14.999 is not the last).
      numbers[index] = std::min(numbers[index] * 10 + (c - '0'), 999u);
    } else if (c != '.' || ++index == 3) {
      break;
    }
  }
  return {numbers[0], numbers[1], numbers[2]};
}

OsVersion ReadOsVersion() {
  utsname name{};
  if (::uname(&name) != 0) return {};
  return ParseKernelRelease(name.release);
}

}  // namespace zu::platform
