// Making detached CMS signatures. Not part of the product.
#ifndef ZU_PLATFORM_LINUX_SIGNING_SIGNER_CMS_WRITER_H_
#define ZU_PLATFORM_LINUX_SIGNING_SIGNER_CMS_WRITER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/signing/cms/signed_message.h"
#include "platform/linux/signing/crypto_context.h"
#include "platform/linux/signing/signer/signing_identity.h"

namespace zu::platform {

// Gets a timestamp token over a signature's value. Absent on failure; `error`
// then says why.
using TimestampSource = std::function<std::optional<std::vector<std::byte>>(
    std::span<const std::byte> signature_value, std::string& error)>;

// A responder (RFC 3161 over HTTP), asked with a nonce and for its
// certificates, or a file that holds a token or a responder's whole answer.
// What comes back is checked against the value before it is used.
TimestampSource TimestampFromResponder(std::string url);
TimestampSource TimestampFromFile(std::string path);

struct CmsOptions {
  TimestampSource timestamp = nullptr;  // Null: none.
  // What the signed attributes say beside the usual three. Empty: nothing.
  std::optional<std::string> content_identifier = std::nullopt;
  std::optional<std::vector<std::byte>> directory_digest_list = std::nullopt;
  std::vector<SignedMessage::DirectoryDigest> directory_digests = {};
};

// A detached signature (SHA-256, DER, with the identity's certificates) over a
// content of type data with this SHA-256 digest. Absent on failure; `error`
// then says why.
std::optional<std::vector<std::byte>> CreateCms(
    const SigningIdentity& identity, std::span<const std::byte> content_digest,
    const CmsOptions& options, std::string& error);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_SIGNER_CMS_WRITER_H_
