// A libcrypto of our own inside the host's.
#ifndef ZU_PLATFORM_LINUX_SIGNING_CRYPTO_CONTEXT_H_
#define ZU_PLATFORM_LINUX_SIGNING_CRYPTO_CONTEXT_H_

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/signing/openssl_ptr.h"

namespace zu::platform {

// A private library context with the built-in algorithms and no configuration
// file, so that what the host (or its environment) sets up for itself cannot
// change what we accept. Immutable, so any thread may use it.
class CryptoContext {
 public:
  // Null when libcrypto cannot make one.
  static std::shared_ptr<const CryptoContext> Create();

  CryptoContext(const CryptoContext&) = delete;
  CryptoContext& operator=(const CryptoContext&) = delete;

  OSSL_LIB_CTX* get() const { return context_.get(); }

  // The digest that `nid` names: SHA-1, SHA-256, SHA-384 or SHA-512. Null for
  // others, which no signature may use. SHA-1 is good for old signatures only;
  // where that matters the caller refuses it.
  const EVP_MD* Digest(int nid) const;

  // AES-256 in CBC mode.
  const EVP_CIPHER* MessageCipher() const { return message_cipher_.get(); }

  // One certificate in DER, at the start of `der`, which is shortened by it.
  // Null when there is none; `der` is then unchanged.
  CertificatePtr TakeCertificate(std::span<const std::byte>& der) const;
  // One list of revoked certificates, likewise.
  CrlPtr TakeCrl(std::span<const std::byte>& der) const;

 private:
  CryptoContext() = default;

  LibraryContextPtr context_;
  ProviderPtr provider_;
  std::array<DigestPtr, 4> digests_;
  CipherPtr message_cipher_;
};

// A text of any of ASN.1's kinds in UTF-8; absent when it cannot be read.
std::optional<std::string> Utf8Of(const ASN1_STRING* text);

// Empty when libcrypto fails.
std::vector<std::byte> DigestOf(std::span<const std::byte> bytes,
                                const EVP_MD& algorithm);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_CRYPTO_CONTEXT_H_
