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

// As far as our rights go. Permissions come last: a change of owner takes some
// of them away.
void Give(int file, const FileAttributes& attributes) {
  [[maybe_unused]] int given =
      ::fchown(file, attributes.owner, attributes.group);
  given = ::fchmod(file, attributes.mode);
}

FileDescriptor OpenDirectory(int parent, const std::string& name) {
  return FileDescriptor(RetryOnInterrupt([&] {
    return ::openat(parent, name.c_str(),
                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  }));
}

// By the time that it is opened another may be in its place, but no link: one
// that the user above could move there.
FileDescriptor MakeDirectory(int parent, const std::string& name,
                             const FileAttributes& attributes) {
  const bool made = ::mkdirat(parent, name.c_str(), 0700) == 0;
  FileDescriptor directory = OpenDirectory(parent, name);
  if (made && directory.valid()) Give(directory.get(), attributes);
  return directory;
}

}  // namespace

std::optional<UserDirectory> UserDirectory::Open(
    int trusted, std::string_view path, const FileAttributes* for_missing) {
  FileDescriptor directory;
  while (!path.empty()) {
    const std::string component(path.substr(0, path.find('/')));
    path.remove_prefix(std::min(path.size(), component.size() + 1));
    const int parent = directory.valid() ? directory.get() : trusted;
    FileDescriptor next = OpenDirectory(parent, component);
    if (!next.valid() && errno == ENOENT && for_missing != nullptr) {
      next = MakeDirectory(parent, component, *for_missing);
    }
    if (!next.valid()) return std::nullopt;
    directory = std::move(next);
  }
  return UserDirectory(std::move(directory));
}

std::optional<FileAttributes> UserDirectory::Attributes() const {
  struct stat status;
  if (::fstat(directory_.get(), &status) != 0) return std::nullopt;
  return FileAttributes{status.st_uid, status.st_gid,
                        static_cast<mode_t>(status.st_mode & 07777)};
}

void UserDirectory::SetAttributes(const FileAttributes& attributes) const {
  Give(directory_.get(), attributes);
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
    Give(file.get(), attributes);
    good = ::renameat(directory_.get(), temporary.c_str(), directory_.get(),
                      name.c_str()) == 0;
  }
  if (!good) ::unlinkat(directory_.get(), temporary.c_str(), 0);
  return good;
}

}  // namespace zu
