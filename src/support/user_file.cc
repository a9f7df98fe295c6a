#include "support/user_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <random>

namespace zu {
namespace {

// A name that its user cannot have put something under beforehand.
std::string TemporaryName(const std::string& name) {
  std::random_device random;
  char suffix[24];
  std::snprintf(suffix, sizeof suffix, ".%08x%08x", random(), random());
  return "." + name + suffix;
}

bool WriteAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = RetryOnInterrupt(
        [&] { return ::write(file, bytes.data(), bytes.size()); });
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

}  // namespace

std::optional<UserDirectory> UserDirectory::Open(int trusted,
                                                 std::string_view path) {
  FileDescriptor directory;
  while (!path.empty()) {
    const std::string component(path.substr(0, path.find('/')));
    path.remove_prefix(std::min(path.size(), component.size() + 1));
    const int parent = directory.valid() ? directory.get() : trusted;
    directory.reset(RetryOnInterrupt([&] {
      return ::openat(parent, component.c_str(),
                      O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    }));
    if (!directory.valid()) return std::nullopt;
  }
  return UserDirectory(std::move(directory));
}

std::optional<FileAttributes> UserDirectory::Attributes() const {
  struct stat status;
  if (::fstat(directory_.get(), &status) != 0) return std::nullopt;
  return FileAttributes{status.st_uid, status.st_gid,
                        static_cast<mode_t>(status.st_mode & 07777)};
}

bool UserDirectory::ReplaceFile(const std::string& name, std::string_view bytes,
                                const FileAttributes& attributes) const {
  const std::string temporary = TemporaryName(name);
  const FileDescriptor file(RetryOnInterrupt([&] {
    return ::openat(directory_.get(), temporary.c_str(),
                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  }));
  if (!file.valid()) return false;
  bool good = WriteAll(file.get(), bytes);
  if (good) {
    // As far as our rights go. Permissions come last: a change of owner takes
    // some of them away.
    [[maybe_unused]] int given =
        ::fchown(file.get(), attributes.owner, attributes.group);
    given = ::fchmod(file.get(), attributes.mode);
    good = ::renameat(directory_.get(), temporary.c_str(), directory_.get(),
                      name.c_str()) == 0;
  }
  if (!good) ::unlinkat(directory_.get(), temporary.c_str(), 0);
  return good;
}

}  // namespace zu
