// Making signatures: what zusign does, and what tests need to make their own
// signed files. Not part of the product.
#ifndef ZU_PLATFORM_LINUX_SIGNING_SIGNER_H_
#define ZU_PLATFORM_LINUX_SIGNING_SIGNER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/signing/crypto_context.h"

namespace zu::platform {

// Who signs: a private key, its certificate and the certificates above it.
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

// A detached CMS signature (SHA-256, DER) over an open file's first
// `content_size` bytes, with `identifier` as its signed content identifier.
// Absent on failure; `error` then says why.
std::optional<std::vector<std::byte>> CreateSignature(
    const SigningIdentity& identity, int descriptor, uint64_t content_size,
    std::string_view identifier, std::string& error);

struct SignOptions {
  std::string identifier;  // Empty: the file's base name.
  bool replace = false;    // Sign anew what is signed already.
};

enum class SignResult {
  kSigned,
  kRefused,  // Not an ELF file, or signed already.
  kFailed,   // The system or libcrypto failed.
};

// Signs an ELF file: it is replaced, in one step, by a signed copy with the
// same mode, owner and extended attributes. On failure the file is unchanged
// and `error` says why. Hard links keep the old file.
SignResult SignFile(const std::string& path, const SigningIdentity& identity,
                    const SignOptions& options, std::string& error);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_SIGNER_H_
