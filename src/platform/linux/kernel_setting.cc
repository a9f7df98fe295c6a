#include "platform/kernel_setting.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string>
#include <system_error>

#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

FileDescriptor Open(std::string name, int mode) {
  // This leaves no dot, and so no way out of the directory.
  std::replace(name.begin(), name.end(), '.', '/');
  return FileDescriptor(
      ::open(("/proc/sys/" + name).c_str(), mode | O_CLOEXEC));
}

}  // namespace

int32_t ReadKernelSetting(const char* name, uint32_t& value) {
  const FileDescriptor file = Open(name, O_RDONLY);
  if (!file.valid()) return -1;
  char text[32];  // Takes any number; what is longer is none.
  const ssize_t length =
      RetryOnInterrupt([&] { return ::read(file.get(), text, sizeof text); });
  if (length < 0) return -1;
  uint32_t number = 0;
  const char* const text_end = text + length;
  const auto [end, error] = std::from_chars(text, text_end, number);
  if (error != std::errc()) {
    errno = static_cast<int>(error);
    return -1;
  }
  // Settings that are lists have a tab there.
  if (end != text_end && *end != '\n') {
    errno = EINVAL;
    return -1;
  }
  value = number;
  return 0;
}

int32_t WriteKernelSetting(const char* name, uint32_t value) {
  const FileDescriptor file = Open(name, O_WRONLY | O_TRUNC);
  if (!file.valid()) return -1;
  // The kernel takes a setting whole, from one call, or not at all.
  const std::string text = std::to_string(value) + "\n";
  return RetryOnInterrupt(
             [&] { return ::write(file.get(), text.data(), text.size()); }) < 0
             ? -1
             : 0;
}

}  // namespace zu::platform
