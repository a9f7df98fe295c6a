// Checks whether an open file is validly signed code.
#ifndef ZU_PLATFORM_LINUX_SIGNING_VERIFIER_H_
#define ZU_PLATFORM_LINUX_SIGNING_VERIFIER_H_

#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "platform/linux/signing/cms/cms_signature.h"
#include "platform/linux/signing/requirement.h"
#include "platform/linux/signing/trust/trust_anchors.h"

namespace zu::platform {

struct VerifyOptions {
  // Certificates must be in their time.
  bool consider_expiration = false;
  // A larger content is not read, and not good.
  uint64_t max_content_size = std::numeric_limits<uint64_t>::max();
};

struct Verification {
  // 0 or one of the platform's numbers. The rest is to be believed only when
  // it is 0.
  int32_t status = 0;
  // For people; static text. Says what `status` is about.
  const char* reason = "valid";
  SignatureFacts facts = {};
};

// A signature found in a file, not checked. `status` is 0 when `signature` and
// `content_size` are set.
struct FoundSignature {
  int32_t status = 0;
  const char* reason = "";
  CmsSignature signature = {};
  uint64_t content_size = 0;
};

// One private cryptographic context and one set of trust anchors. Thread-safe.
class Verifier {
 public:
  // Null when libcrypto fails.
  static std::shared_ptr<Verifier> Create(std::string anchors_directory);

  // The file's offset is neither used nor changed. Not one verdict is kept:
  // every call reads all of the file.
  Verification Verify(int descriptor, const VerifyOptions& options);

  // Reads the signature only.
  FoundSignature FindSignature(int descriptor) const;

 private:
  Verifier(std::shared_ptr<const CryptoContext> context,
           std::string anchors_directory)
      : context_(context),
        anchors_(std::move(context), std::move(anchors_directory)) {}

  const std::shared_ptr<const CryptoContext> context_;
  TrustAnchors anchors_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_VERIFIER_H_
