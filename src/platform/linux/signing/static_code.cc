#include "platform/linux/signing/static_code.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <cerrno>
#include <utility>

namespace zu::platform {
namespace {

FileDescriptor OpenFile(const std::string& path, int flags) {
  // Not blocked by a pipe, and no terminal taken.
  return FileDescriptor(RetryOnInterrupt([&] {
    return ::open(path.c_str(),
                  flags | O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  }));
}

}  // namespace

std::optional<StaticCode> StaticCode::Open(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  std::optional<BundleLayout> bundle;
  if (S_ISDIR(status.st_mode)) {
    bundle = FindBundle(path);
    if (!bundle) {
      errno = EISDIR;
      return std::nullopt;
    }
  } else if (S_ISREG(status.st_mode)) {
    bundle = FindBundleOfExecutable(path);
  } else {
    errno = EINVAL;  // Opening a device can do things to it.
    return std::nullopt;
  }
  FileDescriptor file;
  if (!bundle) {
    file = OpenFile(path, 0);
  } else {
    file = OpenFile(bundle->executable.empty() ? bundle->info_dictionary
                                               : bundle->executable,
                    O_NOFOLLOW);
  }
  if (!file.valid()) return std::nullopt;
  return StaticCode(std::move(file), std::move(bundle));
}

}  // namespace zu::platform
