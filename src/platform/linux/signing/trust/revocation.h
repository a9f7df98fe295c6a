// Whether the certificates of a chain have been revoked.
#ifndef ZU_PLATFORM_LINUX_SIGNING_TRUST_REVOCATION_H_
#define ZU_PLATFORM_LINUX_SIGNING_TRUST_REVOCATION_H_

#include <span>
#include <vector>

#include "platform/linux/signing/crypto_context.h"
#include "platform/linux/signing/trust/http_client.h"

namespace zu::platform {

// Whether one of `chain` (leaf first, anchor last; the anchor itself is not
// asked about) is revoked: by a list in `lists`, by the OCSP responder that
// the certificate names, or by the list at its distribution point, asked in
// this order until one gives an answer that counts (signed by the issuer or by
// whom it delegated this to, and current). A certificate about which nothing
// can be learnt, for want of a responder, of time or of sense in its answer,
// counts as good. The time until `deadline` is shared among all who have to be
// asked; none is asked after it. Thread-safe.
[[nodiscard]] bool IsRevoked(const CryptoContext& context,
                             std::span<const CertificatePtr> chain,
                             std::span<const CrlPtr> lists, Deadline deadline);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_TRUST_REVOCATION_H_
