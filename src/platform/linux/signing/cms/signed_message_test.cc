#include "platform/linux/signing/cms/signed_message.h"

#include <gtest/gtest.h>
#include <openssl/cms.h>
#include <ctime>
#include <functional>

#include "platform/linux/signing/signer/cms_writer.h"
#include "tests/support/test_authority.h"

namespace zu::platform {
namespace {

using Bytes = std::vector<std::byte>;
using enum SignedMessage::ParseResult;
using M = CMS_ContentInfo*;
using S = CMS_SignerInfo*;

const Bytes kContent(9, std::byte{0x5a});
const Bytes kDigest = DigestOf(kContent, *EVP_sha256());

auto Algorithm(int nid) {
  return [nid](M, S signer) {
    X509_ALGOR* algorithm = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, nullptr, &algorithm);
    X509_ALGOR_set0(algorithm, OBJ_nid2obj(nid), V_ASN1_UNDEF, nullptr);
  };
}

void ChangeType(M message, S) {
  CMS_set1_eContentType(message, OBJ_nid2obj(NID_id_smime_ct_TSTInfo));
}

// Messages of libcrypto's, changed after they were signed.
const struct {
  const char* name;
  SignedMessage::ParseResult result = kOk;
  std::function<void(M, S)> change = nullptr;
  unsigned flags = 0;
  unsigned rsa_bits = 0;
  bool is_signed = true;
} kCases[] = {
    {"elliptic curve"},
    {"curve's key instead of algorithm", kOk,
     Algorithm(NID_X9_62_id_ecPublicKey)},
    {"RSA with its digest", kOk, Algorithm(NID_sha256WithRSAEncryption), 0,
     2048},
    {"algorithm of another key", kOk, Algorithm(NID_sha256WithRSAEncryption), 0,
     0, false},
    {"algorithm with another digest", kUnsupported,
     Algorithm(NID_ecdsa_with_SHA384)},
    {"signer named by key", kOk, nullptr, CMS_USE_KEYID},
    {"no attributes", kOk, nullptr, CMS_NOATTR},
    {"no certificate", kOk, nullptr, CMS_NOCERTS, 0, false},
    // Else a message's attributes could be given out as a content.
    {"no attributes, content of another type", kMalformed, ChangeType,
     CMS_NOATTR},
    {"content of another type", kMalformed, ChangeType},
    {"digest with two values", kMalformed,
     [](M, S signer) {
       const int place =
           CMS_signed_get_attr_by_NID(signer, NID_pkcs9_messageDigest, -1);
       X509_ATTRIBUTE_set1_data(CMS_signed_get_attr(signer, place),
                                V_ASN1_OCTET_STRING, "x", 1);
     }},
    {"too many attributes", kMalformed,
     [](M, S signer) {
       for (int i = 0; i < 64; ++i) {
         const std::string oid = "1.2.3." + std::to_string(i);
         CMS_signed_add1_attr_by_txt(signer, oid.c_str(), V_ASN1_OCTET_STRING,
                                     "x", 1);
       }
     }},
    {"two signers", kUnsupported,
     [](M message, S) {
       const auto other = test::ToIdentity(test::MakeSelfSigned());
       CMS_add1_signer(message, other.leaf.get(), other.key.get(), nullptr,
                       CMS_PARTIAL | CMS_NOATTR);
     }},
};

Bytes ToBytes(const CMS_ContentInfo& message) {
  Bytes der(static_cast<size_t>(i2d_CMS_ContentInfo(&message, nullptr)));
  auto* out = reinterpret_cast<unsigned char*>(der.data());
  i2d_CMS_ContentInfo(&message, &out);
  return der;
}

TEST(SignedMessageTest, SaysWhatHolds) {
  const test::TestAuthority root;
  const test::TestAuthority middle("Middle", &root);
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const auto identity =
        test::ToIdentity(middle.Issue({.rsa_bits = c.rsa_bits}));
    const BioPtr content(BIO_new_mem_buf(kContent.data(), 9));
    const CmsPtr made(CMS_sign(identity.leaf.get(), identity.key.get(),
                               identity.chain.get(), content.get(),
                               CMS_BINARY | CMS_DETACHED | c.flags));
    ASSERT_TRUE(made);
    if (c.change) {
      c.change(made.get(),
               sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(made.get()), 0));
    }
    SignedMessage message;
    ASSERT_EQ(message.Parse(identity.context, ToBytes(*made)), c.result);
    if (c.result != kOk) continue;
    EXPECT_EQ(message.VerifyAttributes() && message.VerifyContent(kDigest),
              c.is_signed);
    EXPECT_FALSE(message.VerifyContent(Bytes(32)));
  }
}

TEST(SignedMessageTest, EndsWhereItSays) {
  const SigningIdentity identity =
      test::ToIdentity(test::TestAuthority().Issue());
  std::string error;
  Bytes message = CreateCms(identity, kDigest, {}, error).value_or(Bytes());
  for (Bytes cut = message; !cut.empty();) {
    cut.pop_back();
    EXPECT_EQ(SignedMessage().Parse(identity.context, cut), kMalformed);
  }
  message.resize(message.size() + 99);
  SignedMessage padded;
  ASSERT_EQ(padded.Parse(identity.context, message), kOk);
  EXPECT_TRUE(padded.VerifyAttributes());
  EXPECT_NEAR(static_cast<double>(padded.signing_time().value_or(0)),
              static_cast<double>(std::time(nullptr)), 60);
  message.back() = std::byte{1};
  EXPECT_EQ(SignedMessage().Parse(identity.context, message), kMalformed);
}

}  // namespace
}  // namespace zu::platform
