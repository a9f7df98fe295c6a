#include "platform/linux/signing/signer/file_rewriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/linux/signing/file_content.h"
#include "support/allocated.h"

namespace zu::platform {
namespace {

// Extended attributes that cannot be set (by this user, on this file system)
// are left out.
void CopyExtendedAttributes(int from, int to) {
  const ssize_t list_size = ::flistxattr(from, nullptr, 0);
  if (list_size <= 0) return;
  std::vector<char> names(static_cast<size_t>(list_size));
  const ssize_t used = ::flistxattr(from, names.data(), names.size());
  std::vector<char> value;
  for (const char* name = names.data(); name < names.data() + used;
       name += std::strlen(name) + 1) {
    // These vouch for the old content.
    const std::string_view text = name;
    if (text == "security.ima" || text == "security.evm") continue;
    value.resize(static_cast<size_t>(
        std::max<ssize_t>(::fgetxattr(from, name, nullptr, 0), 0)));
    const ssize_t size = ::fgetxattr(from, name, value.data(), value.size());
    if (size >= 0) {
      ::fsetxattr(to, name, value.data(), static_cast<size_t>(size), 0);
    }
  }
}

bool Sync(int descriptor) {
  return RetryOnInterrupt([&] { return ::fsync(descriptor); }) == 0;
}

}  // namespace

std::optional<FileRewriter> FileRewriter::Open(const std::string& path) {
  const Allocated<char> real_path(::realpath(path.c_str(), nullptr));
  if (!real_path) return std::nullopt;
  FileRewriter rewriter;
  rewriter.path_ = real_path.get();
  rewriter.original_.reset(RetryOnInterrupt([&] {
    return ::open(rewriter.path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  }));
  struct stat status {};
  if (!rewriter.original_.valid() ||
      ::fstat(rewriter.original(), &status) != 0) {
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return std::nullopt;
  }
  std::string pattern = rewriter.path_ + ".XXXXXX";
  rewriter.copy_.reset(::mkostemp(pattern.data(), O_CLOEXEC));
  if (!rewriter.copy_.valid()) return std::nullopt;
  rewriter.copy_path_ = std::move(pattern);
  return rewriter;
}

FileRewriter::~FileRewriter() {
  if (copy_path_.empty()) return;
  const int saved = errno;
  ::unlink(copy_path_.c_str());
  errno = saved;
}

bool FileRewriter::CopyContent(uint64_t size) {
  return ReadInChunks(
      original(), size,
      [this](std::span<const std::byte> chunk) { return Append(chunk); });
}

bool FileRewriter::Append(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = RetryOnInterrupt(
        [&] { return ::write(copy(), bytes.data(), bytes.size()); });
    if (count < 0) return false;
    bytes = bytes.subspan(static_cast<size_t>(count));
  }
  return true;
}

bool FileRewriter::Commit() {
  struct stat status {};
  struct stat copied {};
  if (::fstat(original(), &status) != 0 || ::fstat(copy(), &copied) != 0) {
    return false;
  }
  // A change of owner takes set-user-ID bits and capabilities away, so the mode
  // and the attributes come after it.
  if ((status.st_uid != copied.st_uid || status.st_gid != copied.st_gid) &&
      ::fchown(copy(), status.st_uid, status.st_gid) != 0) {
    return false;
  }
  CopyExtendedAttributes(original(), copy());
  if (::fchmod(copy(), status.st_mode & 07777) != 0 || !Sync(copy()) ||
      ::rename(copy_path_.c_str(), path_.c_str()) != 0) {
    return false;
  }
  copy_path_.clear();
  const FileDescriptor directory(RetryOnInterrupt([&] {
    const std::string name = path_.substr(0, path_.rfind('/') + 1);
    return ::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY);
  }));
  return directory.valid() && Sync(directory.get());
}

}  // namespace zu::platform
