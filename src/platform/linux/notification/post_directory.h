// The directory through which notifications travel.
//
// A post is an empty file that comes and goes at once: its name says which
// notification it is, and the kernel queues its creation for whoever watches
// the directory. Nothing is opened, written, or left behind. The end of the
// name is random and the file must be new, so whatever others put into the
// directory neither misdirects a post nor stands in its way.
#ifndef ZU_PLATFORM_LINUX_NOTIFICATION_POST_DIRECTORY_H_
#define ZU_PLATFORM_LINUX_NOTIFICATION_POST_DIRECTORY_H_

#include <set>
#include <string>
#include <string_view>

#include "support/file_descriptor.h"

namespace zu::platform {

// What the file names of one notification begin with: at most 238 bytes, the
// same in every process, and another one for each name.
std::string PostStem(std::string_view name);

// Makes the directory when it is missing. False, with errno, when the post
// cannot be made.
[[nodiscard]] bool PostFile(std::string_view stem);

// What was posted since the last look.
struct Posts {
  std::set<std::string> stems;
  bool any = false;  // Some were missed: it may have been every name.
};

// Watches whichever directory has the name, also one that is made later or in
// place of another. Not thread-safe.
class PostWatch {
 public:
  // Makes the directory when it is missing and this process may. True, too,
  // when it is watched already, or has yet to be made by somebody else.
  [[nodiscard]] bool Open();
  void Close();

  // Readable when there is something for Read; -1 while closed.
  int descriptor() const { return inotify_.get(); }
  Posts Read();

 private:
  bool Attach();

  FileDescriptor inotify_;
  int parent_ = -1;  // Watch descriptors.
  int directory_ = -1;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_NOTIFICATION_POST_DIRECTORY_H_
