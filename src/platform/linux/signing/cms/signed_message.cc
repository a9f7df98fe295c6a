#include "platform/linux/signing/cms/signed_message.h"

#include <openssl/objects.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>
#include <algorithm>

namespace zu::platform {
namespace {

using ParseResult = SignedMessage::ParseResult;
using IntegerPtr = OpenSslPtr<ASN1_INTEGER, &ASN1_INTEGER_free>;
using NamePtr = OpenSslPtr<X509_NAME, &X509_NAME_free>;

// More than any real message has; what a hostile one can make us parse and
// compare stays bounded.
constexpr size_t kMaxCertificates = 16;
constexpr size_t kMaxAttributes = 64;
constexpr size_t kMaxDirectoryDigests = 64;

constexpr char kContentType[] = "1.2.840.113549.1.9.3";
constexpr char kMessageDigest[] = "1.2.840.113549.1.9.4";
constexpr char kSigningTime[] = "1.2.840.113549.1.9.5";
constexpr char kContentIdentifier[] = "1.2.840.113549.1.9.16.2.7";
constexpr char kTimestampToken[] = "1.2.840.113549.1.9.16.2.14";
constexpr char kDirectoryDigestList[] = "1.2.840.113635.100.9.1";
constexpr char kDirectoryDigests[] = "1.2.840.113635.100.9.2";

bool IsObject(std::span<const std::byte> octets, const char* oid) {
  const ObjectPtr object(OBJ_txt2obj(oid, 1));
  return object && std::ranges::equal(octets, std::as_bytes(std::span(
                                                  OBJ_get0_data(object.get()),
                                                  OBJ_length(object.get()))));
}

bool AreZeros(std::span<const std::byte> bytes) {
  return std::ranges::all_of(bytes,
                             [](std::byte b) { return b == std::byte{0}; });
}

bool Issued(const CertificatePtr& issuer, const CertificatePtr& subject) {
  return X509_check_issued(issuer.get(), subject.get()) == X509_V_OK;
}

const unsigned char* Position(std::span<const std::byte> bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}

}  // namespace

ParseResult SignedMessage::Parse(std::shared_ptr<const CryptoContext> context,
                                 std::vector<std::byte> bytes) {
  const ScopedErrorMark mark;
  context_ = std::move(context);
  bytes_ = std::move(bytes);
  if (bytes_.size() > INT32_MAX) return ParseResult::kMalformed;
  const ParseResult result = ReadMessage();
  OrderCertificates();
  return result;
}

ParseResult SignedMessage::ReadMessage() {
  BerReader file(bytes_);
  BerReader info = file.Enter(kBerSequence);
  const auto type = info.Take(kBerObjectIdentifier);
  if (!type) return ParseResult::kMalformed;
  if (NidOf(*type) != NID_pkcs7_signed) return ParseResult::kUnsupported;
  BerReader wrapped = info.Enter(kBerContext0 | kBerConstructed);
  BerReader fields = wrapped.Enter(kBerSequence);
  const auto version = fields.Take(kBerInteger);
  const auto digests = fields.Take(kBerSet);
  const auto content = fields.Take(kBerSequence);
  const auto certificates = fields.Take(kBerContext0 | kBerConstructed);
  fields.Take(kBerContext1 | kBerConstructed);  // Revocation lists.
  const auto signers = fields.Take(kBerSet);

  // First, since they are wanted also of what is broken otherwise.
  if (certificates && !ReadCertificates(BerReader(certificates->content))) {
    return ParseResult::kMalformed;
  }
  if (!version || !digests || !content || !signers || !fields.AtEnd() ||
      !wrapped.AtEnd() || !info.AtEnd() || !AreZeros(file.rest()) ||
      !ReadContent(BerReader(content->content))) {
    return ParseResult::kMalformed;
  }
  BerReader set(signers->content);
  if (set.AtEnd()) return ParseResult::kUnsupported;
  const auto signer = set.Take(kBerSequence);
  if (!signer) return ParseResult::kMalformed;
  if (!set.AtEnd()) return ParseResult::kUnsupported;
  return ReadSigner(BerReader(signer->content));
}

bool SignedMessage::ReadCertificates(BerReader set) {
  while (!set.AtEnd()) {
    const auto choice = set.Take();
    if (!choice) return false;
    // The others are not X.509's public-key certificates.
    if (choice->tag != kBerSequence) continue;
    if (certificates_.size() == kMaxCertificates) return false;
    std::span<const std::byte> encoding = choice->encoding;
    CertificatePtr certificate = context_->TakeCertificate(encoding);
    if (!certificate || !encoding.empty()) return false;
    certificates_.push_back(std::move(certificate));
  }
  return true;
}

bool SignedMessage::ReadContent(BerReader encapsulated) {
  const auto type = encapsulated.Take(kBerObjectIdentifier);
  if (!type) return false;
  content_type_ = NidOf(*type);
  content_type_octets_ = type->content;
  if (encapsulated.AtEnd()) return true;
  BerReader wrapped = encapsulated.Enter(kBerContext0 | kBerConstructed);
  const auto content = wrapped.Take();
  if (content) content_ = BerOctets(*content);
  return content_ && wrapped.AtEnd() && encapsulated.AtEnd();
}

ParseResult SignedMessage::ReadSigner(BerReader signer) {
  const auto version = signer.Take(kBerInteger);
  const auto identifier = signer.Take();
  const auto digest_nid = TakeAlgorithm(signer);
  const auto attributes = signer.Take(kBerContext0 | kBerConstructed);
  const auto algorithm = TakeAlgorithm(signer);
  const auto signature = signer.Take();
  const auto unsigned_attributes = signer.Take(kBerContext1 | kBerConstructed);
  if (!version || !identifier || !digest_nid || !algorithm || !signature ||
      !signer.AtEnd() || !ReadSignerIdentifier(*identifier)) {
    return ParseResult::kMalformed;
  }
  digest_ = context_->Digest(*digest_nid);
  if (digest_ == nullptr || !ReadSignatureAlgorithm(*algorithm, *digest_nid)) {
    return ParseResult::kUnsupported;
  }
  auto octets = BerOctets(*signature);
  if (!octets) return ParseResult::kMalformed;
  signature_value_ = *std::move(octets);

  if (attributes) {
    signed_attributes_octets_ = attributes->content;
    signed_attributes_ = ReadAttributes(BerReader(attributes->content));
    if (!signed_attributes_ || !CheckRequiredAttributes()) {
      return ParseResult::kMalformed;
    }
    ReadDirectoryDigests();
  } else if (content_type_ != NID_pkcs7_data) {
    // Then nothing signed would say which type the content is of.
    return ParseResult::kMalformed;
  }
  if (unsigned_attributes) {
    const auto read = ReadAttributes(BerReader(unsigned_attributes->content));
    if (!read || !ReadTimestampToken(*read)) return ParseResult::kMalformed;
  }
  return ParseResult::kOk;
}

// Finds the signer's certificate and puts it first.
bool SignedMessage::ReadSignerIdentifier(const BerElement& identifier) {
  const auto take_first = [this](auto is_signer) {
    const auto found = std::ranges::find_if(certificates_, is_signer);
    if (found == certificates_.end()) return;
    std::rotate(certificates_.begin(), found, found + 1);
    has_signer_certificate_ = true;
  };
  if (identifier.tag != kBerSequence) {
    const auto key_identifier = BerOctets(identifier, kBerContext0);
    if (!key_identifier) return false;
    take_first([&](const CertificatePtr& candidate) {
      const ASN1_OCTET_STRING* const own =
          X509_get0_subject_key_id(candidate.get());
      return own != nullptr &&
             std::ranges::equal(
                 *key_identifier,
                 std::as_bytes(
                     std::span(ASN1_STRING_get0_data(own),
                               static_cast<size_t>(ASN1_STRING_length(own)))));
    });
    return true;
  }
  BerReader fields(identifier.content);
  const auto issuer = fields.Take(kBerSequence);
  const auto serial = fields.Take(kBerInteger);
  if (!issuer || !serial || !fields.AtEnd()) return false;
  const unsigned char* position = Position(issuer->encoding);
  const NamePtr name(d2i_X509_NAME(nullptr, &position,
                                   static_cast<long>(issuer->encoding.size())));
  position = Position(serial->encoding);
  const IntegerPtr number(d2i_ASN1_INTEGER(
      nullptr, &position, static_cast<long>(serial->encoding.size())));
  if (!name || !number) return false;
  take_first([&](const CertificatePtr& candidate) {
    return X509_NAME_cmp(X509_get_issuer_name(candidate.get()), name.get()) ==
               0 &&
           ASN1_INTEGER_cmp(X509_get0_serialNumber(candidate.get()),
                            number.get()) == 0;
  });
  return true;
}

// Some algorithms name the key's type only, others the digest as well.
bool SignedMessage::ReadSignatureAlgorithm(int nid, int digest_nid) {
  key_type_ = nid;
  int named_digest = digest_nid;
  if (nid != NID_rsaEncryption && nid != NID_X9_62_id_ecPublicKey &&
      OBJ_find_sigid_algs(nid, &named_digest, &key_type_) != 1) {
    return false;
  }
  return named_digest == digest_nid && (key_type_ == NID_rsaEncryption ||
                                        key_type_ == NID_X9_62_id_ecPublicKey);
}

std::optional<std::vector<SignedMessage::Attribute>>
SignedMessage::ReadAttributes(BerReader set) {
  std::vector<Attribute> attributes;
  while (!set.AtEnd()) {
    BerReader attribute = set.Enter(kBerSequence);
    const auto type = attribute.Take(kBerObjectIdentifier);
    const auto values = attribute.Take(kBerSet);
    if (!type || !values || !attribute.AtEnd() ||
        attributes.size() == kMaxAttributes) {
      return std::nullopt;
    }
    attributes.push_back({type->content, values->content});
  }
  return attributes;
}

// The two that must be there, each once.
bool SignedMessage::CheckRequiredAttributes() {
  const auto type = SignedValue(kContentType);
  auto digest = SignedOctetString(kMessageDigest);
  if (!type || type->tag != kBerObjectIdentifier ||
      !std::ranges::equal(type->content, content_type_octets_) || !digest) {
    return false;
  }
  message_digest_ = *std::move(digest);
  return true;
}

bool SignedMessage::ReadTimestampToken(
    const std::vector<Attribute>& unsigned_attributes) {
  const auto found =
      std::ranges::find_if(unsigned_attributes, [](const Attribute& attribute) {
        return IsObject(attribute.type, kTimestampToken);
      });
  if (found == unsigned_attributes.end()) return true;
  const auto token = BerReader(found->values).Take(kBerSequence);
  if (!token) return false;
  timestamp_token_.emplace(token->encoding.begin(), token->encoding.end());
  return true;
}

void SignedMessage::ReadDirectoryDigests() {
  directory_digest_list_ = SignedOctetString(kDirectoryDigestList);
  has_broken_directory_digests_ =
      !directory_digest_list_ && SignedValues(kDirectoryDigestList);
  auto values = SignedValues(kDirectoryDigests);
  if (!values) return;
  do {
    BerReader fields = values->Enter(kBerSequence);
    const auto algorithm = fields.Take(kBerObjectIdentifier);
    const auto digest = fields.Take();
    auto octets = digest ? BerOctets(*digest) : std::nullopt;
    if (!algorithm || !octets || !fields.AtEnd() ||
        directory_digests_.size() == kMaxDirectoryDigests) {
      has_broken_directory_digests_ = true;
      directory_digests_.clear();
      return;
    }
    directory_digests_.push_back({NidOf(*algorithm), *std::move(octets)});
  } while (!values->AtEnd());
}

void SignedMessage::OrderCertificates() {
  if (certificates_.empty()) return;
  if (!has_signer_certificate_) {
    const auto leaf = std::ranges::find_if(
        certificates_, [this](const CertificatePtr& candidate) {
          return std::ranges::none_of(
              certificates_, [&](const CertificatePtr& other) {
                return other != candidate && Issued(candidate, other);
              });
        });
    // In a circle any is as good as another.
    if (leaf != certificates_.end()) {
      std::rotate(certificates_.begin(), leaf, leaf + 1);
    }
  }
  for (auto last = certificates_.begin(); last + 1 != certificates_.end();
       ++last) {
    const auto issuer = std::find_if(
        last + 1, certificates_.end(),
        [&](const CertificatePtr& other) { return Issued(other, *last); });
    if (issuer == certificates_.end()) return;
    std::rotate(last + 1, issuer, issuer + 1);
  }
}

bool SignedMessage::VerifyAttributes() const {
  if (!signed_attributes_) return has_signer_certificate_;
  // What is hashed is the set itself, not the field that stands for it: with
  // the set's own tag and a definite length.
  const auto hashed = EncodeDer(kBerSet, {signed_attributes_octets_});
  return VerifySignature(DigestOf(hashed, *digest_));
}

bool SignedMessage::VerifyContent(std::span<const std::byte> digest) const {
  return signed_attributes_ ? std::ranges::equal(digest, message_digest_)
                            : VerifySignature(digest);
}

bool SignedMessage::VerifySignature(std::span<const std::byte> digest) const {
  if (!has_signer_certificate_) return false;
  const ScopedErrorMark mark;
  EVP_PKEY* const key = X509_get0_pubkey(certificates_.front().get());
  if (key == nullptr || EVP_PKEY_get_base_id(key) != key_type_) return false;
  const KeyContextPtr context(
      EVP_PKEY_CTX_new_from_pkey(context_->get(), key, nullptr));
  return context && EVP_PKEY_verify_init(context.get()) == 1 &&
         (key_type_ != NID_rsaEncryption ||
          EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) ==
              1) &&
         EVP_PKEY_CTX_set_signature_md(context.get(), digest_) == 1 &&
         EVP_PKEY_verify(context.get(), Position(signature_value_),
                         signature_value_.size(), Position(digest),
                         digest.size()) == 1;
}

std::optional<std::string> SignedMessage::content_identifier() const {
  const auto octets = SignedOctetString(kContentIdentifier);
  if (!octets) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(octets->data()),
                     octets->size());
}

std::optional<int64_t> SignedMessage::signing_time() const {
  const ScopedErrorMark mark;
  const auto value = SignedValue(kSigningTime);
  return value ? BerTime(*value) : std::nullopt;
}

std::optional<std::vector<std::byte>> SignedMessage::SignedOctetString(
    const char* oid) const {
  const auto value = SignedValue(oid);
  return value ? BerOctets(*value) : std::nullopt;
}

std::optional<BerReader> SignedMessage::SignedValues(const char* oid) const {
  if (!signed_attributes_) return std::nullopt;
  const auto is_it = [oid](const Attribute& attribute) {
    return IsObject(attribute.type, oid);
  };
  const auto found = std::ranges::find_if(*signed_attributes_, is_it);
  if (found == signed_attributes_->end()) return std::nullopt;
  if (std::find_if(found + 1, signed_attributes_->end(), is_it) !=
      signed_attributes_->end()) {
    return BerReader({});
  }
  return BerReader(found->values);
}

std::optional<BerElement> SignedMessage::SignedValue(const char* oid) const {
  auto values = SignedValues(oid);
  auto value = values ? values->Take() : std::nullopt;
  return value && values->AtEnd() ? value : std::nullopt;
}

}  // namespace zu::platform
