// Files in directories that a user controls, while we may be root.
#ifndef ZU_SUPPORT_USER_FILE_H_
#define ZU_SUPPORT_USER_FILE_H_

#include <sys/types.h>
#include <optional>
#include <string>
#include <string_view>

#include "support/file_descriptor.h"

namespace zu {

// By default only the creator may use a file, and nobody else gets it.
struct FileAttributes {
  uid_t owner = static_cast<uid_t>(-1);
  gid_t group = static_cast<gid_t>(-1);
  mode_t mode = 0600;
};

// A directory below one that only the system's administrator can change. Its
// user may put links in the place of anything in it at any moment, so nothing
// in it is ever named by a path: what is done is done to open descriptors.
class UserDirectory {
 public:
  // Opens the directory that `path` ("a/b/c") names from `trusted` on. Those on
  // the way that are missing are made when there are attributes for them, which
  // they get whatever the umask. Absent, with errno, when a component is still
  // missing, a link or no directory.
  [[nodiscard]] static std::optional<UserDirectory> Open(
      int trusted, std::string_view path,
      const FileAttributes* for_missing = nullptr);

  // Owner, group and permissions; absent when they cannot be examined.
  [[nodiscard]] std::optional<FileAttributes> Attributes() const;

  // Gives it these, as far as the caller's rights go.
  void SetAttributes(const FileAttributes& attributes) const;

  // Puts a file with these bytes in the place of `name`, whatever that was, in
  // one step: readers see the old one or the new one whole. A link is replaced
  // and not followed. Owner and group are given as far as the caller's rights
  // go. False, with nothing left behind, when the file could not be written or
  // a directory is in its place.
  [[nodiscard]] bool ReplaceFile(const std::string& name,
                                 std::string_view bytes,
                                 const FileAttributes& attributes) const;

 private:
  explicit UserDirectory(FileDescriptor directory)
      : directory_(std::move(directory)) {}

  FileDescriptor directory_;
};

}  // namespace zu

#endif  // ZU_SUPPORT_USER_FILE_H_
