// Making signatures: what zusign does, and what tests need to make their own
// signed files. Not part of the product.
#ifndef ZU_PLATFORM_LINUX_SIGNING_SIGNER_SIGNER_H_
#define ZU_PLATFORM_LINUX_SIGNING_SIGNER_SIGNER_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/signing/signer/cms_writer.h"
#include "platform/linux/signing/signer/signing_identity.h"

namespace zu::platform {

// A detached CMS signature (SHA-256, DER) over an open file's first
// `content_size` bytes, with `identifier` as its signed content identifier.
// Absent on failure; `error` then says why.
std::optional<std::vector<std::byte>> CreateSignature(
    const SigningIdentity& identity, int descriptor, uint64_t content_size,
    std::string_view identifier, std::string& error,
    const TimestampSource& timestamp = nullptr);

struct SignOptions {
  std::string identifier;               // Empty: the file's base name.
  bool replace = false;                 // Sign anew what is signed already.
  TimestampSource timestamp = nullptr;  // Null: none.
};

enum class SignResult {
  kSigned,
  kRefused,  // Not of a kind that can be signed, or signed already.
  kFailed,   // The system or libcrypto failed.
};

// Signs an ELF file or a script: it is replaced, in one step, by a signed copy
// with the same mode, owner and extended attributes. On failure the file is
// unchanged and `error` says why. Hard links keep the old file.
SignResult SignFile(const std::string& path, const SigningIdentity& identity,
                    const SignOptions& options, std::string& error);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_SIGNER_SIGNER_H_
