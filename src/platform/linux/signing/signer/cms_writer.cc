#include "platform/linux/signing/signer/cms_writer.h"

#include <openssl/objects.h>
#include <openssl/rand.h>
#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <utility>

#include "platform/linux/signing/cms/ber.h"
#include "platform/linux/signing/cms/timestamp.h"
#include "platform/linux/signing/trust/http_client.h"

namespace zu::platform {
namespace {

using AttributePtr = OpenSslPtr<X509_ATTRIBUTE, &X509_ATTRIBUTE_free>;

constexpr auto kResponderTimeout = std::chrono::seconds(30);
constexpr int kSha256Size = 32;
constexpr char kDirectoryDigestList[] = "1.2.840.113635.100.9.1";
constexpr char kDirectoryDigests[] = "1.2.840.113635.100.9.2";

// What one of libcrypto's i2d functions writes.
template <typename Write>
std::vector<std::byte> ToDer(Write write) {
  std::vector<std::byte> der(static_cast<size_t>(std::max(write(nullptr), 0)));
  auto* position = reinterpret_cast<unsigned char*>(der.data());
  if (!der.empty()) write(&position);
  return der;
}

std::vector<std::byte> EncodeNid(int nid) {
  return ToDer([nid](unsigned char** position) {
    return i2d_ASN1_OBJECT(OBJ_nid2obj(nid), position);
  });
}

bool AddOctets(CMS_SignerInfo* signer, const char* oid,
               std::span<const std::byte> octets) {
  return CMS_signed_add1_attr_by_txt(signer, oid, V_ASN1_OCTET_STRING,
                                     octets.data(),
                                     static_cast<int>(octets.size())) == 1;
}

bool AddDirectoryDigests(
    CMS_SignerInfo* signer,
    const std::vector<SignedMessage::DirectoryDigest>& digests) {
  const AttributePtr attribute(X509_ATTRIBUTE_new());
  if (!attribute ||
      X509_ATTRIBUTE_set1_object(
          attribute.get(),
          ObjectPtr(OBJ_txt2obj(kDirectoryDigests, 1)).get()) != 1) {
    return false;
  }
  for (const auto& digest : digests) {
    const auto value = EncodeDer(
        kBerSequence,
        {EncodeNid(digest.nid), EncodeDer(kBerOctetString, {digest.value})});
    if (X509_ATTRIBUTE_set1_data(attribute.get(), V_ASN1_SEQUENCE, value.data(),
                                 static_cast<int>(value.size())) != 1) {
      return false;
    }
  }
  return CMS_signed_add1_attr(signer, attribute.get()) == 1;
}

// Adds the attributes and signs them. Says false with libcrypto's reason.
bool Sign(CMS_SignerInfo* signer, std::span<const std::byte> content_digest,
          const CmsOptions& options) {
  const auto& identifier = options.content_identifier;
  return CMS_signed_add1_attr_by_NID(signer, NID_pkcs9_contentType,
                                     V_ASN1_OBJECT, OBJ_nid2obj(NID_pkcs7_data),
                                     -1) == 1 &&
         AddOctets(signer, "1.2.840.113549.1.9.4", content_digest) &&
         (!identifier || AddOctets(signer, "1.2.840.113549.1.9.16.2.7",
                                   std::as_bytes(std::span(*identifier)))) &&
         (!options.directory_digest_list ||
          AddOctets(signer, kDirectoryDigestList,
                    *options.directory_digest_list)) &&
         (options.directory_digests.empty() ||
          AddDirectoryDigests(signer, options.directory_digests)) &&
         // Adds the signing time.
         CMS_SignerInfo_sign(signer) == 1;
}

bool AddTimestamp(const SigningIdentity& identity, CMS_SignerInfo* signer,
                  const TimestampSource& source, std::string& error) {
  const ASN1_OCTET_STRING* const signature =
      CMS_SignerInfo_get0_signature(signer);
  const auto value = std::as_bytes(
      std::span(ASN1_STRING_get0_data(signature),
                static_cast<size_t>(ASN1_STRING_length(signature))));
  const auto token = source(value, error);
  if (!token) return false;
  if (!VerifyTimestampToken(identity.context, *token, value)) {
    error = "the timestamp is not one of this signature";
    return false;
  }
  if (CMS_unsigned_add1_attr_by_txt(signer, "1.2.840.113549.1.9.16.2.14",
                                    V_ASN1_SEQUENCE, token->data(),
                                    static_cast<int>(token->size())) != 1) {
    error = CryptoError("the timestamp cannot be added");
    return false;
  }
  return true;
}

// The token, or what a responder says instead. `bytes` may be the token alone.
std::optional<std::vector<std::byte>> TokenOf(std::span<const std::byte> bytes,
                                              std::string& error) {
  BerReader fields = BerReader(bytes).Enter(kBerSequence);
  std::optional<BerElement> token;
  if (fields.Take(kBerObjectIdentifier)) {
    token = BerReader(bytes).Take();
  } else if (const auto status = fields.Enter(kBerSequence).Take(kBerInteger)) {
    // 0 is "granted" and 1 "granted, with changes".
    if (status->content.size() == 1 && status->content[0] > std::byte{1}) {
      error = "the responder refuses with status " +
              std::to_string(std::to_integer<int>(status->content[0]));
      return std::nullopt;
    }
    token = fields.Take(kBerSequence);
  }
  if (!token) {
    error = "no timestamp in the answer";
    return std::nullopt;
  }
  return std::vector<std::byte>(token->encoding.begin(), token->encoding.end());
}

std::optional<std::vector<std::byte>> AskResponder(
    const std::string& url, std::span<const std::byte> value,
    std::string& error) {
  const ScopedErrorMark mark;
  const auto context = CryptoContext::Create();
  std::vector<std::byte> nonce(8);
  if (!context || RAND_bytes_ex(context->get(),
                                reinterpret_cast<unsigned char*>(nonce.data()),
                                nonce.size(), 0) != 1) {
    error = CryptoError("no random number");
    return std::nullopt;
  }
  // Positive, and no shorter than it looks.
  nonce[0] = (nonce[0] & std::byte{0x3f}) | std::byte{0x40};
  const auto imprint =
      EncodeDer(kBerSequence,
                {EncodeDer(kBerSequence,
                           {EncodeNid(NID_sha256), EncodeDer(kBerNull, {})}),
                 EncodeDer(kBerOctetString,
                           {DigestOf(value, *context->Digest(NID_sha256))})});
  constexpr std::byte kVersion[] = {std::byte{1}};
  constexpr std::byte kTrue[] = {std::byte{0xff}};
  const auto request =
      EncodeDer(kBerSequence, {EncodeDer(kBerInteger, {kVersion}), imprint,
                               EncodeDer(kBerInteger, {nonce}),
                               // With its certificates.
                               EncodeDer(kBerBoolean, {kTrue})});
  const auto response =
      ExchangeHttp({.url = url,
                    .content_type = "application/timestamp-query",
                    .body = request},
                   std::chrono::steady_clock::now() + kResponderTimeout, error);
  auto token = response ? TokenOf(*response, error) : std::nullopt;
  if (!token) return std::nullopt;
  const auto timestamp = VerifyTimestampToken(context, *token, value);
  if (!timestamp || timestamp->nonce != nonce) {
    error = "the responder's timestamp is not the one that was asked for";
    return std::nullopt;
  }
  return token;
}

}  // namespace

TimestampSource TimestampFromResponder(std::string url) {
  return [url = std::move(url)](std::span<const std::byte> value,
                                std::string& error) {
    auto token = AskResponder(url, value, error);
    if (!token) error = url + ": " + error;
    return token;
  };
}

TimestampSource TimestampFromFile(std::string path) {
  return [path = std::move(path)](
             std::span<const std::byte>,
             std::string& error) -> std::optional<std::vector<std::byte>> {
    std::ifstream file(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
      error = path + ": cannot be read";
      return std::nullopt;
    }
    auto token = TokenOf(std::as_bytes(std::span(text)), error);
    if (!token) error = path + ": " + error;
    return token;
  };
}

std::optional<std::vector<std::byte>> CreateCms(
    const SigningIdentity& identity, std::span<const std::byte> content_digest,
    const CmsOptions& options, std::string& error) {
  const ScopedErrorMark mark;
  constexpr unsigned kFlags =
      CMS_BINARY | CMS_DETACHED | CMS_PARTIAL | CMS_NOSMIMECAP;
  if (content_digest.size() != kSha256Size) {
    error = "the content's digest has another size than SHA-256";
    return std::nullopt;
  }
  const CmsPtr message(CMS_sign_ex(nullptr, nullptr, identity.chain.get(),
                                   nullptr, kFlags, identity.context->get(),
                                   nullptr));
  CMS_SignerInfo* const signer =
      message ? CMS_add1_signer(message.get(), identity.leaf.get(),
                                identity.key.get(),
                                identity.context->Digest(NID_sha256), kFlags)
              : nullptr;
  if (signer == nullptr || !Sign(signer, content_digest, options)) {
    error = CryptoError("the signature cannot be made");
    return std::nullopt;
  }
  if (options.timestamp &&
      !AddTimestamp(identity, signer, options.timestamp, error)) {
    return std::nullopt;
  }
  auto der = ToDer([&](unsigned char** position) {
    return i2d_CMS_ContentInfo(message.get(), position);
  });
  if (der.empty()) {
    error = CryptoError("the signature cannot be encoded");
    return std::nullopt;
  }
  return der;
}

}  // namespace zu::platform
