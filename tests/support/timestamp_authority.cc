#include "tests/support/timestamp_authority.h"

#include <openssl/cms.h>
#include <openssl/objects.h>
#include <ctime>
#include <stdexcept>

#include "platform/linux/signing/cms/ber.h"
#include "platform/linux/signing/openssl_ptr.h"
#include "tests/support/message_editor.h"

namespace zu::test {
namespace {

using Bytes = std::vector<std::byte>;

BerNode Primitive(uint8_t tag, std::string_view octets) {
  const auto bytes = std::as_bytes(std::span(octets));
  return {tag, {bytes.begin(), bytes.end()}, {}};
}

// A message with signed attributes and, in it, what a timestamp says.
Bytes MakeToken(const Credential& tsa, const BerNode& imprint, int64_t time,
                const std::vector<BerNode>& nonce) {
  char text[32];
  std::strftime(text, sizeof(text), "%Y%m%d%H%M%SZ", std::gmtime(&time));
  BerNode info{platform::kBerSequence,
               {},
               {Primitive(platform::kBerInteger, "\1"),
                Primitive(platform::kBerObjectIdentifier, "\x2a\3"), imprint,
                Primitive(platform::kBerInteger, "\7"), Primitive(0x18, text)}};
  // Its accuracy and that it is ordered, as many say.
  info.parts.push_back(
      {platform::kBerSequence, {}, {Primitive(platform::kBerInteger, "\1")}});
  info.parts.push_back(Primitive(platform::kBerBoolean, "\xff"));
  info.parts.insert(info.parts.end(), nonce.begin(), nonce.end());
  const Bytes content = info.Encode();

  // CMS_CADES adds the reference to the signer's certificate, which tokens
  // must have.
  constexpr unsigned kFlags =
      CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP | CMS_CADES;
  const platform::SigningIdentity signer = ToIdentity(tsa);
  const platform::CmsPtr message(
      CMS_sign_ex(nullptr, nullptr, signer.chain.get(), nullptr, kFlags,
                  signer.context->get(), nullptr));
  CMS_set1_eContentType(message.get(), OBJ_nid2obj(NID_id_smime_ct_TSTInfo));
  CMS_add1_signer(message.get(), signer.leaf.get(), signer.key.get(),
                  EVP_sha256(), kFlags);
  const platform::BioPtr data(
      BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  if (CMS_final(message.get(), data.get(), nullptr, kFlags) != 1) {
    throw std::runtime_error("timestamp");
  }
  Bytes token(static_cast<size_t>(i2d_CMS_ContentInfo(message.get(), nullptr)));
  auto* out = reinterpret_cast<unsigned char*>(token.data());
  i2d_CMS_ContentInfo(message.get(), &out);
  return token;
}

}  // namespace

Bytes MakeTimestampToken(const Credential& tsa,
                         std::span<const std::byte> value, int64_t time) {
  const BerNode sha256{platform::kBerSequence,
                       {},
                       {Primitive(platform::kBerObjectIdentifier,
                                  "\x60\x86\x48\1\x65\3\4\2\1")}};
  const BerNode imprint{
      platform::kBerSequence,
      {},
      {sha256,
       {platform::kBerOctetString, platform::DigestOf(value, *EVP_sha256())}}};
  return MakeToken(tsa, imprint, time, {});
}

Bytes AnswerTimestampRequest(const Credential& tsa,
                             std::span<const std::byte> request, int64_t time) {
  // Version, imprint, nonce and whether certificates are asked for.
  const std::vector<BerNode> asked = BerNode::Parse(request).parts;
  if (asked.size() != 4) throw std::runtime_error("request");
  const BerNode granted = Primitive(platform::kBerInteger, {"\0", 1});
  return platform::EncodeDer(
      platform::kBerSequence,
      {platform::EncodeDer(platform::kBerSequence, {granted.Encode()}),
       MakeToken(tsa, asked[1], time, {asked[2]})});
}

}  // namespace zu::test
