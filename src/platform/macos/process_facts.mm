#include "platform/process_facts.h"

#import <Foundation/Foundation.h>

#include <libproc.h>
#include <mach/machine.h>
#include <sys/sysctl.h>

namespace zu::platform {

static_assert(kCpuTypeX86_64 == CPU_TYPE_X86_64);
static_assert(kCpuTypeArm64 == CPU_TYPE_ARM64);

std::optional<uint32_t> ReadCpuType(int32_t pid) {
  int name[CTL_MAXNAME + 1];
  size_t length = CTL_MAXNAME;
  if (::sysctlnametomib("sysctl.proc_cputype", name, &length) != 0) {
    return std::nullopt;
  }
  name[length++] = pid;
  cpu_type_t type = 0;
  size_t size = sizeof type;
  if (::sysctl(name, static_cast<u_int>(length), &type, &size, nullptr, 0) !=
      0) {
    return std::nullopt;
  }
  return static_cast<uint32_t>(type);
}

std::optional<std::string> ReadExecutablePath(int32_t pid) {
  char path[PROC_PIDPATHINFO_MAXSIZE];
  const int length = ::proc_pidpath(pid, path, sizeof path);
  if (length < 1) return std::nullopt;
  return std::string(path, static_cast<size_t>(length));
}

std::optional<std::string> ReadProcessName() {
  @autoreleasepool {
    const char* const name =
        [[[NSProcessInfo processInfo] processName] UTF8String];
    if (name == nullptr) return std::nullopt;
    return name;
  }
}

}  // namespace zu::platform
