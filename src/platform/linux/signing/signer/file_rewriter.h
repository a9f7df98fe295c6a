// Replaces a file by a changed copy, in one step.
#ifndef ZU_PLATFORM_LINUX_SIGNING_SIGNER_FILE_REWRITER_H_
#define ZU_PLATFORM_LINUX_SIGNING_SIGNER_FILE_REWRITER_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "support/file_descriptor.h"

namespace zu::platform {

// The copy lies beside the file, under a name of its own, until Commit gives
// it the file's; without that it is removed. Functions that return false set
// errno.
class FileRewriter {
 public:
  // Opens a regular file, behind symbolic links if need be, and starts an
  // empty copy that only its owner may use. Absent on failure, with errno set.
  static std::optional<FileRewriter> Open(const std::string& path);

  FileRewriter(FileRewriter&&) = default;
  ~FileRewriter();

  int original() const { return original_.get(); }
  int copy() const { return copy_.get(); }

  // Appends the original's first `size` bytes, or bytes of the caller's.
  [[nodiscard]] bool CopyContent(uint64_t size);
  [[nodiscard]] bool Append(std::span<const std::byte> bytes);

  // Gives the copy the original's owner, mode, extended attributes and name,
  // and has all of it on the disk before it returns.
  [[nodiscard]] bool Commit();

 private:
  FileRewriter() = default;

  std::string path_;
  std::string copy_path_;  // Empty when there is nothing to remove.
  FileDescriptor original_;
  FileDescriptor copy_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_SIGNER_FILE_REWRITER_H_
