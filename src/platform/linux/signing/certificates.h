// Certificates: what they say, and whether a chain of them may sign code.
#ifndef ZU_PLATFORM_LINUX_SIGNING_CERTIFICATES_H_
#define ZU_PLATFORM_LINUX_SIGNING_CERTIFICATES_H_

#include <cstdint>
#include <span>
#include <vector>

#include "platform/linux/signing/crypto_context.h"
#include "platform/linux/signing/requirement.h"

namespace zu::platform {

CertificateFacts FactsOf(const X509& certificate);

// A key usage that allows signatures (or none), and an extended key usage that
// names code signing. "Any" usage does not count.
bool MaySignCode(X509& certificate);

struct ChainPolicy {
  // False: certificates are good before and after their time, too.
  bool consider_expiration = false;
};

struct ChainResult {
  int32_t status = 0;  // 0 or one of the chain's numbers in status.h.
  // Leaf first, anchor last. Empty when no chain could be built.
  std::vector<CertificatePtr> chain = {};
};

// Builds a chain from certificates[0] to a certificate in `anchors`, helped by
// the other certificates, and checks that it may sign code. An anchor need not
// be self-signed; it may even be the leaf.
ChainResult EvaluateChain(const CryptoContext& context, X509_STORE& anchors,
                          std::span<const CertificatePtr> certificates,
                          const ChainPolicy& policy);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_CERTIFICATES_H_
