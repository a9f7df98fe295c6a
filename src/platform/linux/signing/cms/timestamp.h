// Timestamp tokens (RFC 3161): who saw a signature, and when.
#ifndef ZU_PLATFORM_LINUX_SIGNING_CMS_TIMESTAMP_H_
#define ZU_PLATFORM_LINUX_SIGNING_CMS_TIMESTAMP_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "platform/linux/signing/crypto_context.h"

namespace zu::platform {

// What a token's content (TSTInfo) says.
struct TimestampInfo {
  int digest_nid = 0;  // libcrypto's, NID_undef when it does not know it.
  std::vector<std::byte> digest = {};  // Of what was there at the time.
  int64_t time = 0;                    // In seconds of the Unix epoch.
  // The two's-complement octets; absent when the request had none.
  std::optional<std::vector<std::byte>> nonce = std::nullopt;
};

std::optional<TimestampInfo> ParseTimestampInfo(
    std::span<const std::byte> bytes);

struct Timestamp {
  int64_t time = 0;  // In seconds of the Unix epoch.
  // The authority's, then those above it as far as the token has them.
  std::vector<CertificatePtr> certificates = {};
  std::optional<std::vector<std::byte>> nonce = std::nullopt;  // As above.
};

// Reads a token and checks that its signer signed it and that it is about
// `value`. Absent when not. Its certificates are not checked: EvaluateChain
// does that, for time-stamping and at the token's own time.
std::optional<Timestamp> VerifyTimestampToken(
    std::shared_ptr<const CryptoContext> context,
    std::span<const std::byte> token, std::span<const std::byte> value);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_CMS_TIMESTAMP_H_
