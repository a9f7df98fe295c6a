// Certificates: what they say, and whether a chain of them may sign code.
#ifndef ZU_PLATFORM_LINUX_SIGNING_TRUST_CERTIFICATES_H_
#define ZU_PLATFORM_LINUX_SIGNING_TRUST_CERTIFICATES_H_

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/signing/crypto_context.h"

namespace zu::platform {

// A key usage that allows signatures (or none), and an extended key usage that
// names code signing. "Any" usage does not count.
bool MaySignCode(X509& certificate);

enum class ChainPurpose {
  kCodeSigning,
  kTimeStamping,
  kAny,
};

struct ChainPolicy {
  ChainPurpose purpose = ChainPurpose::kCodeSigning;
  // False: certificates are good before and after their time, too.
  bool consider_expiration = false;
  // The moment, in seconds of the Unix epoch, for which they have to be in
  // their time; absent: now.
  std::optional<int64_t> time = std::nullopt;
  // A self-signed certificate among `certificates` may end the chain as well.
  bool accept_own_root = false;
  // False: 112 bits of security, that is RSA from 2048 bits on and no SHA-1
  // below the anchor. True: RSA from 1024 bits on and SHA-1, which signatures
  // of the years before 2014 need; never MD5.
  bool accept_legacy_algorithms = false;
};

struct ChainResult {
  int32_t status = 0;  // 0 or one of the chain's numbers in status.h.
  // Leaf first, anchor last. Empty unless the status is 0.
  std::vector<CertificatePtr> chain = {};
  // It ends in a certificate of `anchors`.
  bool anchor_trusted = false;
};

// Builds a chain from certificates[0] to a certificate in `anchors`, helped by
// the other certificates, and checks that it is good for the purpose. An
// anchor need not be self-signed; it may even be the leaf. Critical extensions
// of Apple's arc (1.2.840.113635.100.6) are markers that restrict nothing, and
// accepted.
ChainResult EvaluateChain(const CryptoContext& context, X509_STORE& anchors,
                          std::span<const CertificatePtr> certificates,
                          const ChainPolicy& policy);

// A certificate's subject in a few words, as people know it: its last common
// name, with its description in parentheses if it has one, else its last
// organizational unit, organization or mail address. Absent when it has none of
// them.
std::optional<std::string> SubjectSummary(const X509& certificate);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_TRUST_CERTIFICATES_H_
