// Who made a signature: its certificates, its timestamp, and whether they can
// be believed.
#ifndef ZU_PLATFORM_LINUX_SIGNING_SIGNER_CHECK_H_
#define ZU_PLATFORM_LINUX_SIGNING_SIGNER_CHECK_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/linux/signing/cms/signed_message.h"
#include "platform/linux/signing/cms/timestamp.h"
#include "platform/linux/signing/crypto_context.h"
#include "platform/linux/signing/trust/http_client.h"
#include "platform/linux/signing/trust/trust_anchors.h"

namespace zu::platform {

// Outcome of a part of a check; `status` as in Verification.
struct [[nodiscard]] CheckResult {
  int32_t status = 0;
  const char* reason = "valid";
  bool good() const { return status == 0; }
};

struct SignerPolicy {
  bool consider_expiration = false;
  // For signatures from before 2014; see ChainPolicy.
  bool accept_legacy_algorithms = false;
  // Until then the network is asked about revocation; absent: it is not
  // checked at all.
  std::optional<Deadline> revocation_deadline = std::nullopt;
};

struct Signer {
  // Leaf first, root last.
  std::vector<CertificatePtr> chain = {};
  // The chain ends in an anchor, and so does the timestamp's if there is one.
  bool anchor_trusted = false;
};

// The token that comes with a message, its authority's certificates not yet
// checked. Absent when there is none or it is about something else.
std::optional<Timestamp> TimestampOf(
    const std::shared_ptr<const CryptoContext>& context,
    const SignedMessage& message);

// Checks everything about a message that was parsed but the content's digest:
// the signature over its attributes, its timestamp, its certificates at the
// time that the timestamp names. A chain may end in a self-signed certificate
// that came along: what an anchor vouches for is told apart by
// `anchor_trusted`.
CheckResult CheckSigner(const std::shared_ptr<const CryptoContext>& context,
                        const TrustSet& trusted, const SignedMessage& message,
                        const SignerPolicy& policy, Signer& signer);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_SIGNER_CHECK_H_
