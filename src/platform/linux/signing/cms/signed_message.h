// A CMS SignedData message: read as it lies in the file, then checked part by
// part.
#ifndef ZU_PLATFORM_LINUX_SIGNING_CMS_SIGNED_MESSAGE_H_
#define ZU_PLATFORM_LINUX_SIGNING_CMS_SIGNED_MESSAGE_H_

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
// by one: the signature here, the certificates by EvaluateChain.
//
// Lengths may be indefinite and sets in any order: signers hash their
// attributes as they wrote them, so nothing is encoded anew.
class SignedMessage {
 public:
  enum class ParseResult {
    kOk,
    kMalformed,    // Not one complete message, or a part of it is broken.
    kUnsupported,  // Not one signer, or an algorithm that is not accepted.
  };

  // Reads the message at the start of `bytes`; only zeros may follow it. The
  // certificates can be asked for even when the result is not kOk: they are
  // then what could be read.
  ParseResult Parse(std::shared_ptr<const CryptoContext> context,
                    std::vector<std::byte> bytes);

  // The signer's certificate, if it is among them, then its issuer and so on
  // as far as the message has them, then those that are not of the chain.
  // Without the signer's: first one that issued none of the others.
  const std::vector<CertificatePtr>& certificates() const;

  // The rest is for a message that was parsed.

  // The encapsulated content; absent in a detached signature.
  const std::optional<std::vector<std::byte>>& content() const;
  // Its type, as a libcrypto NID (NID_undef for types that it does not know).
  int content_type() const;

  // The digest under which the content was signed: SHA-1, SHA-256, SHA-384 or
  // SHA-512.
  const EVP_MD& digest() const;
  bool has_signed_attributes() const;

  // Whether the signer's certificate is there and its key made the signature
  // over the signed attributes, which name the content type. True without
  // signed attributes: then VerifyContent checks all there is.
  [[nodiscard]] bool VerifyAttributes() const;
  // Whether a content with this digest is what was signed.
  [[nodiscard]] bool VerifyContent(std::span<const std::byte> digest) const;

  // Signed attributes. Absent: not there, there more than once or with several
  // values, or of another type.
  std::optional<std::string> content_identifier() const;
  // In seconds of the Unix epoch; the time that the signer claims.
  std::optional<int64_t> signing_time() const;
  // The digests of all code directories: as a property list (first version of
  // that attribute) ...
  std::optional<std::vector<std::byte>> directory_digest_list() const;
  // ... and with their algorithms (second version). Empty when it is not
  // there; has_broken_directory_digests() when it cannot be read.
  struct DirectoryDigest {
    int nid = 0;  // Of the digest algorithm.
    std::vector<std::byte> value;
  };
  const std::vector<DirectoryDigest>& directory_digests() const;
  bool has_broken_directory_digests() const;
  // The signed attribute `oid` (dotted) with one OCTET STRING as its value.
  std::optional<std::vector<std::byte>> SignedOctetString(
      const char* oid) const;

  // Unsigned: the RFC 3161 token; absent when there is none. It vouches for
  // signature_value().
  const std::optional<std::vector<std::byte>>& timestamp_token() const;
  std::span<const std::byte> signature_value() const;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_CMS_SIGNED_MESSAGE_H_
