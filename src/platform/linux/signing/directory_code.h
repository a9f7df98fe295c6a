// Code that a code directory covers: a slice of a Mach-O file, or a bundle that
// keeps its signature in files.
#ifndef ZU_PLATFORM_LINUX_SIGNING_DIRECTORY_CODE_H_
#define ZU_PLATFORM_LINUX_SIGNING_DIRECTORY_CODE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/linux/signing/bundle/bundle_layout.h"
#include "platform/linux/signing/cms/signed_message.h"
#include "platform/linux/signing/macho/code_directory.h"
#include "platform/linux/signing/macho/macho_image.h"
#include "platform/linux/signing/signer_check.h"

namespace zu::platform {

class DirectoryCode {
 public:
  // Reads the signature of a slice, or from a bundle's files; `bundle` may be
  // null in the first. Whether there is one is told by found().
  static DirectoryCode FromSlice(int descriptor, const MachOSlice& slice,
                                 const BundleLayout* bundle);
  static DirectoryCode FromFiles(int descriptor, const BundleLayout& bundle);

  const CheckResult& found() const { return found_; }
  // The rest is for a signature that was found.
  const EmbeddedSignature& signature() const { return signature_; }

  // What is sealed beside the code, but for resources, is as it was.
  CheckResult CheckComponents(const CryptoContext& context) const;
  // The code is as it was.
  CheckResult CheckCode(const CryptoContext& context) const;
  // The message was made about these directories.
  CheckResult CheckDirectories(const CryptoContext& context,
                               const SignedMessage& message) const;

 private:
  DirectoryCode() = default;

  CheckResult found_;
  EmbeddedSignature signature_;
  int descriptor_ = -1;
  uint64_t offset_ = 0;
  // What the signature has to cover: all before it, or the whole file.
  uint64_t code_size_ = 0;
  std::optional<std::vector<std::byte>> info_dictionary_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_DIRECTORY_CODE_H_
