// Checks whether code at rest is validly signed.
#ifndef ZU_PLATFORM_LINUX_SIGNING_VERIFIER_H_
#define ZU_PLATFORM_LINUX_SIGNING_VERIFIER_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/signing/crypto_context.h"
#include "platform/linux/signing/requirement.h"
#include "platform/linux/signing/static_code.h"
#include "platform/linux/signing/trust/trust_anchors.h"

namespace zu::platform {

struct VerifyOptions {
  // What every slice that is checked has to satisfy; null: nothing. Borrowed.
  const Expression* requirement = nullptr;
  // Every slice of a universal file, instead of the one that NativeSlice
  // names. They must agree about the team.
  bool all_architectures = false;
  // A bundle's resources are what was sealed.
  bool check_resources = true;
  // Code in a bundle is checked whole, instead of its directory only.
  bool check_nested_code = false;
  // Certificates must be in their time. A secure timestamp decides which that
  // is, also without this.
  bool consider_expiration = false;
  // Certificates must not be known to be revoked; asks the network.
  bool check_revocation = false;
  // Of an appended signature: a larger content is not read, and not good.
  uint64_t max_content_size = std::numeric_limits<uint64_t>::max();
};

struct Verification {
  // 0 or one of the platform's numbers. The rest is to be believed only when
  // it is 0.
  int32_t status = 0;
  // For people; static text. Says what `status` is about.
  const char* reason = "valid";
  // Of the slice that NativeSlice names.
  SignatureFacts facts = {};
};

// What a signature says, not checked. Of the slice that NativeSlice names.
struct SignatureInformation {
  // 0: there is a signature that can be read. Otherwise the rest is what could
  // be read all the same.
  int32_t status = 0;
  const char* reason = "";
  const char* format = "";  // For people; static text.
  // The signer's first, then its issuers as far as they are known.
  std::vector<CertificatePtr> certificates = {};
  std::optional<std::string> identifier = std::nullopt;
  std::optional<std::string> team = std::nullopt;
  bool ad_hoc = false;
  const char* digest = "";  // Of the content, or of its pages; static text.
  uint64_t content_size = 0;
  std::vector<std::vector<std::byte>> cdhashes = {};
  // In seconds of the Unix epoch: as a time-stamping authority saw it, and as
  // the signer claims.
  std::optional<int64_t> timestamp = std::nullopt;
  std::optional<int64_t> signing_time = std::nullopt;
};

enum class Trust { kTrusted, kUntrusted, kRevoked };

// How long one check may ask the network, all of it together.
inline constexpr std::chrono::seconds kNetworkTime{10};

// One private cryptographic context and one set of trust anchors. Thread-safe.
class Verifier {
 public:
  // Null when libcrypto fails.
  static std::shared_ptr<Verifier> Create(std::string anchors_directory);

  // Not one verdict is kept: every call reads all that is sealed.
  Verification Verify(const StaticCode& code, const VerifyOptions& options);

  SignatureInformation Inspect(const StaticCode& code);

  // Whether a chain, leaf first, leads to an anchor and is not known to be
  // revoked; asks the network. Certificates may be out of their time.
  Trust EvaluateTrust(std::span<const CertificatePtr> chain);

  std::shared_ptr<const CryptoContext> context() const { return context_; }

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
