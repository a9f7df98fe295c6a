// Code at rest: the file that a path or a process leads to, and the bundle
// around it if there is one.
#ifndef ZU_PLATFORM_LINUX_SIGNING_STATIC_CODE_H_
#define ZU_PLATFORM_LINUX_SIGNING_STATIC_CODE_H_

#include <optional>
#include <string>
#include <utility>

#include "platform/linux/signing/bundle/bundle_layout.h"
#include "support/file_descriptor.h"

namespace zu::platform {

class StaticCode {
 public:
  // A bundle's directory, a bundle's main executable (which stands for the
  // bundle), or another file. Absent, with errno set, when there is none of
  // these or it cannot be opened.
  static std::optional<StaticCode> Open(const std::string& path);

  // A file that is open already, and the bundle whose main executable it is.
  explicit StaticCode(FileDescriptor file,
                      std::optional<BundleLayout> bundle = std::nullopt)
      : file_(std::move(file)), bundle_(std::move(bundle)) {}

  // The main executable; of a bundle without one, the information dictionary.
  // Invalid when it cannot be read.
  int descriptor() const { return file_.get(); }
  const std::optional<BundleLayout>& bundle() const { return bundle_; }

 private:
  FileDescriptor file_;
  std::optional<BundleLayout> bundle_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_STATIC_CODE_H_
