// The kernel's files about one process.
#ifndef ZU_PLATFORM_LINUX_PROCESS_FILE_H_
#define ZU_PLATFORM_LINUX_PROCESS_FILE_H_

#include <fcntl.h>
#include <cstdint>
#include <cstdio>

#include "support/file_descriptor.h"

namespace zu::platform {

// "/proc/PID/NAME", without the heap. What no process has as its number names
// no file.
struct ProcessPath {
  ProcessPath(int64_t pid, const char* name) {
    std::snprintf(text, sizeof text, "/proc/%lld/%s",
                  static_cast<long long>(pid), name);
  }
  char text[48];
};

// Invalid, with errno, when there is no such file or it may not be read.
inline FileDescriptor OpenProcessFile(int64_t pid, const char* name,
                                      int more_flags = 0) {
  const ProcessPath path(pid, name);
  return FileDescriptor(RetryOnInterrupt(
      [&] { return ::open(path.text, O_RDONLY | O_CLOEXEC | more_flags); }));
}

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_PROCESS_FILE_H_
