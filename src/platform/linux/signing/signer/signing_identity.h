// Who signs: a private key, its certificate and the certificates above it.
#ifndef ZU_PLATFORM_LINUX_SIGNING_SIGNER_SIGNING_IDENTITY_H_
#define ZU_PLATFORM_LINUX_SIGNING_SIGNER_SIGNING_IDENTITY_H_

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/signing/crypto_context.h"

namespace zu::platform {

struct SigningIdentity {
  // Reads PEM text: one private key, whose passphrase (if it has one) is asked
  // for on the terminal, and certificates, the key's own first. Absent when
  // they cannot be read or do not belong together; `error` then says why.
  static std::optional<SigningIdentity> FromPem(std::string_view key,
                                                std::string_view certificates,
                                                std::string& error);

  std::shared_ptr<const CryptoContext> context;
  KeyPtr key;
  CertificatePtr leaf;
  CertificateStackPtr chain;
};

// "what: reason", with the last reason that libcrypto gave in this thread.
std::string CryptoError(const char* what);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_SIGNER_SIGNING_IDENTITY_H_
