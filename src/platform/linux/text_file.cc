#include "platform/linux/text_file.h"

#include <fcntl.h>
#include <cstddef>

#include "support/file_descriptor.h"

namespace zu::platform {

std::string ReadTextFile(const char* path) {
  constexpr size_t kMaxSize = 16 << 20;
  const FileDescriptor file(RetryOnInterrupt([=] {
    return ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  }));
  std::string text;
  char buffer[4096];
  while (file.valid() && text.size() < kMaxSize) {
    const ssize_t count = RetryOnInterrupt(
        [&] { return ::read(file.get(), buffer, sizeof buffer); });
    if (count <= 0) break;
    text.append(buffer, static_cast<size_t>(count));
  }
  return text;
}

}  // namespace zu::platform
