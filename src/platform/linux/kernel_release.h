// The kernel's release text, as uname gives it.
#ifndef ZU_PLATFORM_LINUX_KERNEL_RELEASE_H_
#define ZU_PLATFORM_LINUX_KERNEL_RELEASE_H_

#include <string_view>

#include "platform/os_version.h"

namespace zu::platform {

// Reads up to three leading numbers, "6.1.0-13-amd64" being 6, 1 and 0. A
// number above 999, which the packed form cannot hold, reads as 999.
OsVersion ParseKernelRelease(std::string_view release);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_KERNEL_RELEASE_H_
