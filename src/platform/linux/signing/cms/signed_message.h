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
#include <utility>
#include <vector>

#include "platform/linux/signing/cms/ber.h"
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

  // Reads the message at the start of `bytes`; only zeros may follow it. To be
  // called once. The certificates can be asked for even when the result is not
  // kOk: they are then what could be read.
  ParseResult Parse(std::shared_ptr<const CryptoContext> context,
                    std::vector<std::byte> bytes);

  // The signer's certificate, if it is among them, then its issuer and so on
  // as far as the message has them, then those that are not of the chain.
  // Without the signer's: first one that issued none of the others.
  const std::vector<CertificatePtr>& certificates() const {
    return certificates_;
  }
  // Gives them away. After that no signature can be verified.
  std::vector<CertificatePtr> TakeCertificates() {
    has_signer_certificate_ = false;
    return std::move(certificates_);
  }

  // The rest is for a message that was parsed.

  // The encapsulated content; absent in a detached signature.
  const std::optional<std::vector<std::byte>>& content() const {
    return content_;
  }
  // Its type, as a libcrypto NID (NID_undef for types that it does not know).
  int content_type() const { return content_type_; }

  // The digest under which the content was signed: SHA-1, SHA-256, SHA-384 or
  // SHA-512. Which of them is good enough is the caller's policy.
  const EVP_MD& digest() const { return *digest_; }
  bool has_signed_attributes() const { return signed_attributes_.has_value(); }

  // Whether the signer's certificate is there and its key made the signature
  // over the signed attributes, which name the content type. Without signed
  // attributes only whether the certificate is there: then VerifyContent
  // checks all there is.
  [[nodiscard]] bool VerifyAttributes() const;
  // Whether a content with this digest is what was signed: says the signed
  // attribute (which VerifyAttributes checks) or, without attributes, the
  // signature itself.
  [[nodiscard]] bool VerifyContent(std::span<const std::byte> digest) const;

  // Signed attributes. Absent: not there, there more than once or with several
  // values, or of another type.
  std::optional<std::string> content_identifier() const;
  // In seconds of the Unix epoch; the time that the signer claims.
  std::optional<int64_t> signing_time() const;
  // The digests of all code directories: as a property list (first version of
  // that attribute) ...
  std::optional<std::vector<std::byte>> directory_digest_list() const {
    return directory_digest_list_;
  }
  // ... and with their algorithms (second version). Empty when it is not
  // there.
  struct DirectoryDigest {
    int nid = 0;  // Of the digest algorithm; NID_undef when it is not known.
    std::vector<std::byte> value;
  };
  const std::vector<DirectoryDigest>& directory_digests() const {
    return directory_digests_;
  }
  // One of these two attributes is there but cannot be read.
  bool has_broken_directory_digests() const {
    return has_broken_directory_digests_;
  }
  // The signed attribute `oid` (dotted) with one OCTET STRING as its value.
  std::optional<std::vector<std::byte>> SignedOctetString(
      const char* oid) const;
  // The values of the signed attribute `oid`, one behind the other. Absent
  // when it is not there; without any when it is there more than once.
  std::optional<BerReader> SignedValues(const char* oid) const;

  // Unsigned: the (first) RFC 3161 token; absent when there is none. It
  // vouches for signature_value().
  const std::optional<std::vector<std::byte>>& timestamp_token() const {
    return timestamp_token_;
  }
  std::span<const std::byte> signature_value() const {
    return signature_value_;
  }

 private:
  // Borrows from bytes_.
  struct Attribute {
    std::span<const std::byte> type;
    std::span<const std::byte> values;
  };

  ParseResult ReadMessage();
  bool ReadCertificates(BerReader set);
  bool ReadContent(BerReader encapsulated);
  ParseResult ReadSigner(BerReader signer);
  bool ReadSignerIdentifier(const BerElement& identifier);
  bool ReadSignatureAlgorithm(int nid, int digest_nid);
  bool CheckRequiredAttributes();
  bool ReadTimestampToken(const std::vector<Attribute>& unsigned_attributes);
  void ReadDirectoryDigests();
  void OrderCertificates();

  static std::optional<std::vector<Attribute>> ReadAttributes(BerReader set);
  // The only value of a signed attribute.
  std::optional<BerElement> SignedValue(const char* oid) const;
  bool VerifySignature(std::span<const std::byte> digest) const;

  std::shared_ptr<const CryptoContext> context_;
  std::vector<std::byte> bytes_;
  std::vector<CertificatePtr> certificates_;
  bool has_signer_certificate_ = false;  // Then it is the first.

  std::optional<std::vector<std::byte>> content_;
  int content_type_ = 0;
  std::span<const std::byte> content_type_octets_;

  const EVP_MD* digest_ = nullptr;  // The context's.
  int key_type_ = 0;
  std::optional<std::vector<Attribute>> signed_attributes_;
  std::span<const std::byte> signed_attributes_octets_;
  std::vector<std::byte> message_digest_;
  std::vector<std::byte> signature_value_;

  std::optional<std::vector<std::byte>> directory_digest_list_;
  std::vector<DirectoryDigest> directory_digests_;
  bool has_broken_directory_digests_ = false;
  std::optional<std::vector<std::byte>> timestamp_token_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_CMS_SIGNED_MESSAGE_H_
