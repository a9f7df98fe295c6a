// A detached signature in the cryptographic message syntax.
#ifndef ZU_PLATFORM_LINUX_SIGNING_CMS_CMS_SIGNATURE_H_
#define ZU_PLATFORM_LINUX_SIGNING_CMS_CMS_SIGNATURE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/signing/crypto_context.h"

namespace zu::platform {

// What a signature says, read but not yet believed. Its parts are checked one
// by one: the signer's signature over the signed attributes here, the content
// by comparing its digest with `content_digest`, the certificates by
// EvaluateChain.
class CmsSignature {
 public:
  enum class ParseResult {
    kOk,
    kMalformed,    // Not one complete message, or a part of it is missing.
    kUnsupported,  // Not one signer, no signed attributes, a weak digest, ...
  };

  // Reads a message that fills `der` to its end, carries no content and has
  // exactly one signer, with a SHA-2 digest and signed attributes.
  ParseResult Parse(std::shared_ptr<const CryptoContext> context,
                    std::span<const std::byte> der);

  // The rest is for a signature that was parsed.

  // Whether the leaf's key made the signature over the signed attributes.
  [[nodiscard]] bool VerifySignature() const;

  const EVP_MD& digest() const { return *digest_; }
  // The digest that the signed attributes claim for the content.
  std::span<const std::byte> content_digest() const;

  X509* leaf() const { return certificates_.front().get(); }
  // All certificates that came along: the leaf, then its issuer and so on as
  // far as the message has them, then those that are not of the chain.
  const std::vector<CertificatePtr>& certificates() const {
    return certificates_;
  }

  // The signed content identifier; absent when there is none (or several).
  const std::optional<std::string>& identifier() const { return identifier_; }
  // The time that the signer claims, in seconds of the Unix epoch.
  std::optional<int64_t> signing_time() const;

 private:
  bool TakeCertificates();

  std::shared_ptr<const CryptoContext> context_;
  CmsPtr message_;
  CMS_SignerInfo* signer_ = nullptr;                   // The message's.
  const EVP_MD* digest_ = nullptr;                     // The context's.
  const ASN1_OCTET_STRING* content_digest_ = nullptr;  // The message's.
  std::vector<CertificatePtr> certificates_;
  std::optional<std::string> identifier_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_CMS_CMS_SIGNATURE_H_
