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
  // The chain ends in an anchor.
  bool anchor_trusted = false;
};

// When a time-stamping authority saw a message, in seconds of the Unix epoch.
// Absent when there is no token, it is bad, or its authority counts for nothing
// (see below).
std::optional<int64_t> TimestampOf(
    const std::shared_ptr<const CryptoContext>& context,
    const TrustSet& trusted, const SignedMessage& message);

// Checks everything about a message that was parsed but the content's digest:
// the signature over its attributes, its timestamp, its certificates at the
// time that the timestamp names. A chain may end in a self-signed certificate
// that came along: what an anchor vouches for is told apart by
// `anchor_trusted`.
//
// The timestamp's time counts when its chain ends in an anchor, or where the
// signer's does. Anybody can set up an authority that vouches for any time.
//
// The network is asked about revocation only where the answer means something:
// when the chain ends in an anchor or in a root of Apple's.
CheckResult CheckSigner(const std::shared_ptr<const CryptoContext>& context,
                        const TrustSet& trusted, const SignedMessage& message,
                        const SignerPolicy& policy, Signer& signer);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_SIGNER_CHECK_H_
