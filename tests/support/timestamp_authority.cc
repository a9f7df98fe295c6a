#include "tests/support/timestamp_authority.h"

#include <openssl/cms.h>
#include <openssl/objects.h>
#include <ctime>
#include <stdexcept>
#include <string_view>

#include "platform/linux/signing/cms/ber.h"
#include "platform/linux/signing/openssl_ptr.h"

namespace zu::test {
namespace {

using Bytes = std::vector<std::byte>;
using platform::EncodeDer;
using platform::kBerSequence;

Bytes Primitive(uint8_t tag, std::string_view octets) {
  return EncodeDer(tag, {std::as_bytes(std::span(octets))});
}

}  // namespace

Bytes MakeTimestampToken(const Credential& tsa,
                         std::span<const std::byte> value, int64_t time) {
  using platform::kBerInteger;
  using platform::kBerObjectIdentifier;
  char text[32];
  std::strftime(text, sizeof(text), "%Y%m%d%H%M%SZ", std::gmtime(&time));
  const Bytes sha256 = EncodeDer(
      kBerSequence,
      {Primitive(kBerObjectIdentifier, "\x60\x86\x48\1\x65\3\4\2\1")});
  const Bytes digest = platform::DigestOf(value, *EVP_sha256());
  const Bytes imprint = EncodeDer(
      kBerSequence, {sha256, EncodeDer(platform::kBerOctetString, {digest})});
  // Its accuracy and that it is ordered come last, as many say.
  const Bytes content = EncodeDer(
      kBerSequence,
      {Primitive(kBerInteger, "\1"), Primitive(kBerObjectIdentifier, "\x2a\3"),
       imprint, Primitive(kBerInteger, "\7"), Primitive(0x18, text),
       EncodeDer(kBerSequence, {Primitive(kBerInteger, "\1")}),
       Primitive(platform::kBerBoolean, "\xff")});

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

}  // namespace zu::test
