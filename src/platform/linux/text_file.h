// Small text files of the system: settings, and what the kernel writes.
#ifndef ZU_PLATFORM_LINUX_TEXT_FILE_H_
#define ZU_PLATFORM_LINUX_TEXT_FILE_H_

#include <string>

namespace zu::platform {

// The file's text; empty when it cannot be opened, and as far as it got when
// reading fails. Does not wait for somebody to write to a pipe in the file's
// place, and leaves out what lies beyond 16 MiB, which no such file has.
std::string ReadTextFile(const char* path);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_TEXT_FILE_H_
