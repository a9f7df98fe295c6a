#include "platform/linux/signing/cms/timestamp.h"

#include <openssl/objects.h>
#include <algorithm>
#include <array>
#include <utility>

#include "platform/linux/signing/cms/ber.h"
#include "platform/linux/signing/cms/signed_message.h"

namespace zu::platform {
namespace {

constexpr std::byte kVersion{1};
constexpr uint8_t kGeneralizedTime = 0x18;

// The signed attributes by which a token says whose it is.
struct CertificateReference {
  const char* oid;
  int default_digest;
  bool may_name_digest;
};
constexpr CertificateReference kCertificateReferences[] = {
    {"1.2.840.113549.1.9.16.2.12", NID_sha1, false},
    {"1.2.840.113549.1.9.16.2.47", NID_sha256, true},
};

// True also when the attribute is not there.
bool RefersTo(const SignedMessage& message, const CryptoContext& context,
              const CertificateReference& reference, const X509& certificate) {
  auto values = message.SignedValues(reference.oid);
  if (!values) return true;
  // The first of the certificates that are listed is the signer's.
  BerReader fields =
      values->Enter(kBerSequence).Enter(kBerSequence).Enter(kBerSequence);
  const auto named =
      reference.may_name_digest ? TakeAlgorithm(fields) : std::nullopt;
  const EVP_MD* const algorithm =
      context.Digest(named.value_or(reference.default_digest));
  const auto expected = fields.Take(kBerOctetString);
  std::array<std::byte, EVP_MAX_MD_SIZE> digest;
  unsigned size = 0;
  return algorithm != nullptr && expected &&
         X509_digest(&certificate, algorithm,
                     reinterpret_cast<unsigned char*>(digest.data()),
                     &size) == 1 &&
         std::ranges::equal(std::span(digest).first(size), expected->content);
}

}  // namespace

std::optional<TimestampInfo> ParseTimestampInfo(
    std::span<const std::byte> bytes) {
  const ScopedErrorMark mark;
  BerReader file(bytes);
  BerReader fields = file.Enter(kBerSequence);
  const auto version = fields.Take(kBerInteger);
  const auto policy = fields.Take(kBerObjectIdentifier);
  BerReader imprint = fields.Enter(kBerSequence);
  const auto digest_nid = TakeAlgorithm(imprint);
  const auto digest = imprint.Take();
  const auto serial = fields.Take(kBerInteger);
  const auto time = fields.Take(kGeneralizedTime);
  if (!file.AtEnd() || !version ||
      !std::ranges::equal(version->content, std::span(&kVersion, 1)) ||
      !policy || !digest_nid || !digest || !imprint.AtEnd() || !serial ||
      !time) {
    return std::nullopt;
  }
  auto octets = BerOctets(*digest);
  const auto seconds = BerTime(*time);
  if (!octets || !seconds) return std::nullopt;
  TimestampInfo info{*digest_nid, *std::move(octets), *seconds};
  fields.Take(kBerSequence);  // The time's accuracy.
  fields.Take(kBerBoolean);   // Whether tokens are ordered.
  if (const auto nonce = fields.Take(kBerInteger)) {
    info.nonce.emplace(nonce->content.begin(), nonce->content.end());
  }
  return info;
}

std::optional<Timestamp> VerifyTimestampToken(
    std::shared_ptr<const CryptoContext> context,
    std::span<const std::byte> token, std::span<const std::byte> value) {
  const ScopedErrorMark mark;
  SignedMessage message;
  if (message.Parse(context, {token.begin(), token.end()}) !=
          SignedMessage::ParseResult::kOk ||
      message.content_type() != NID_id_smime_ct_TSTInfo || !message.content()) {
    return std::nullopt;
  }
  auto info = ParseTimestampInfo(*message.content());
  const EVP_MD* const algorithm =
      info ? context->Digest(info->digest_nid) : nullptr;
  if (algorithm == nullptr || info->digest.empty() ||
      info->digest != DigestOf(value, *algorithm) ||
      !message.VerifyContent(DigestOf(*message.content(), message.digest())) ||
      !message.VerifyAttributes()) {
    return std::nullopt;
  }
  const X509& signer = *message.certificates().front();
  for (const CertificateReference& reference : kCertificateReferences) {
    if (!RefersTo(message, *context, reference, signer)) return std::nullopt;
  }
  return Timestamp{info->time, message.TakeCertificates(),
                   std::move(info->nonce)};
}

}  // namespace zu::platform
