#include "platform/linux/signing/cms/signed_message.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>
#include <algorithm>
#include <ctime>
#include <functional>

#include "platform/linux/signing/signer/cms_writer.h"
#include "tests/support/message_editor.h"
#include "tests/support/test_authority.h"

namespace zu::platform {
namespace {

using test::BerNode;
using test::EditableMessage;
using Bytes = std::vector<std::byte>;
using Result = SignedMessage::ParseResult;

// The ends of object identifiers.
const std::vector<uint8_t> kMessageDigest = {9, 4};
const std::vector<uint8_t> kDigestList = {100, 9, 1};

Bytes ToBytes(std::initializer_list<int> octets) {
  Bytes bytes;
  for (const int octet : octets) bytes.push_back(static_cast<std::byte>(octet));
  return bytes;
}

// Algorithms.
const Bytes kCurveKey = ToBytes({0x2a, 0x86, 0x48, 0xce, 0x3d, 2, 1});
const Bytes kSha384WithCurve = ToBytes({0x2a, 0x86, 0x48, 0xce, 0x3d, 4, 3, 3});
const Bytes kSha256WithRsa =
    ToBytes({0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 1, 1, 11});

bool IsRsa(const SigningIdentity& identity) {
  return EVP_PKEY_get_base_id(identity.key.get()) == EVP_PKEY_RSA;
}

const Bytes kContent(9, std::byte{0x5a});
const Bytes kDigest = DigestOf(kContent, *EVP_sha256());
const CmsOptions kOptions{
    .content_identifier = "com.example.tool",
    .directory_digest_list = ToBytes({'<', 'p', '>'}),
    .directory_digests = {{NID_sha1, Bytes(20, std::byte{1})},
                          {NID_sha256, Bytes(32, std::byte{2})}}};

Bytes Create(const SigningIdentity& identity) {
  std::string error;
  const auto message = CreateCms(identity, kDigest, kOptions, error);
  EXPECT_TRUE(message) << error;
  return message.value_or(Bytes());
}

void Repeat(BerNode& parent, const BerNode& part, size_t times = 1) {
  const BerNode copy = part;
  parent.parts.insert(parent.parts.end(), times, copy);
}

void TakeAttributesAway(EditableMessage& message,
                        const SigningIdentity& identity) {
  message.signature().octets = test::SignBytes(identity, kContent);
  message.signer().parts.erase(message.signer().parts.begin() + 3);
}

void NameByKey(EditableMessage& message, const SigningIdentity& identity) {
  const ASN1_OCTET_STRING* const key =
      X509_get0_subject_key_id(identity.leaf.get());
  const auto octets =
      std::as_bytes(std::span(ASN1_STRING_get0_data(key),
                              static_cast<size_t>(ASN1_STRING_length(key))));
  message.signer().parts[1] = {kBerContext0, {octets.begin(), octets.end()}};
}

// A message that its signer made otherwise.
using M = EditableMessage&;
using S = const SigningIdentity&;
enum class Says { kHolds, kNotSigned, kBrokenList, kMalformed, kUnsupported };
const struct {
  const char* name;
  Says says;
  std::function<void(M, S)> apply;
} kEdits[] = {
    {"attributes in another order", Says::kHolds,
     [](M m, S) { std::ranges::reverse(m.attributes().parts); }},
    {"no attributes", Says::kHolds, TakeAttributesAway},
    {"no attributes, content of another type", Says::kMalformed,
     [](M m, S signer) {
       m.type().octets.back() = std::byte{6};
       TakeAttributesAway(m, signer);
     }},
    {"signer named by key", Says::kHolds, NameByKey},
    {"another content type", Says::kMalformed,
     [](M m, S) { m.type().octets.back() = std::byte{6}; }},
    {"digest attribute twice", Says::kMalformed,
     [](M m, S) { Repeat(m.attributes(), m.Attribute(kMessageDigest)); }},
    {"digest attribute with two values", Says::kMalformed,
     [](M m, S) {
       BerNode& values = m.Attribute(kMessageDigest).parts[1];
       Repeat(values, values.parts[0]);
     }},
    {"too many attributes", Says::kMalformed,
     [](M m, S) { Repeat(m.attributes(), m.Attribute(kDigestList), 64); }},
    {"digest list twice", Says::kBrokenList,
     [](M m, S) { Repeat(m.attributes(), m.Attribute(kDigestList)); }},
    {"two signers", Says::kUnsupported,
     [](M m, S) { Repeat(m.signers(), m.signer()); }},
    {"no signer", Says::kUnsupported,
     [](M m, S) { m.signers().parts.clear(); }},
    {"signature algorithm with another digest", Says::kUnsupported,
     [](M m, S) { m.signature_algorithm().octets = kSha384WithCurve; }},
    {"algorithm spelled otherwise", Says::kHolds,
     [](M m, S signer) {
       m.signature_algorithm().octets =
           IsRsa(signer) ? kSha256WithRsa : kCurveKey;
     }},
    {"algorithm of another key", Says::kNotSigned,
     [](M m, S signer) {
       m.signature_algorithm().octets =
           IsRsa(signer) ? kCurveKey : kSha256WithRsa;
     }},
    {"certificate of another kind", Says::kHolds,
     [](M m, S) { m.certificates().parts.push_back({0xa3}); }},
    {"too many certificates", Says::kMalformed,
     [](M m, S) { Repeat(m.certificates(), m.certificates().parts[0], 15); }},
};

TEST(SignedMessageTest, SaysWhatHolds) {
  const test::TestAuthority root;
  const test::TestAuthority middle("Middle", &root);
  for (const unsigned rsa_bits : {0u, 2048u}) {
    const auto identity =
        test::ToIdentity(middle.Issue({.rsa_bits = rsa_bits}));
    const Bytes created = Create(identity);
    for (const auto& edit : kEdits) {
      SCOPED_TRACE(std::string(edit.name) + (rsa_bits != 0 ? ", RSA" : ""));
      EditableMessage edited{BerNode::Parse(created)};
      edit.apply(edited, identity);
      if (!edited.signers().parts.empty() &&
          edited.attributes().tag == (kBerContext0 | kBerConstructed)) {
        edited.SignAttributes(identity);
      }
      SignedMessage message;
      const Result result =
          message.Parse(identity.context, edited.root.Encode());
      ASSERT_EQ(result, edit.says == Says::kMalformed     ? Result::kMalformed
                        : edit.says == Says::kUnsupported ? Result::kUnsupported
                                                          : Result::kOk);
      if (result != Result::kOk) continue;
      EXPECT_EQ(message.VerifyAttributes(), edit.says != Says::kNotSigned);
      EXPECT_TRUE(message.VerifyContent(kDigest));
      EXPECT_FALSE(message.VerifyContent(Bytes(32)));
      EXPECT_FALSE(message.VerifyContent({}));
      EXPECT_EQ(message.has_broken_directory_digests(),
                edit.says == Says::kBrokenList);
    }
  }
}

TEST(SignedMessageTest, EndsWhereItSays) {
  const SigningIdentity identity =
      test::ToIdentity(test::TestAuthority().Issue());
  Bytes message = Create(identity);
  for (size_t i = 0; i < message.size(); ++i) {
    EXPECT_EQ(
        SignedMessage().Parse(
            identity.context,
            {message.begin(), message.begin() + static_cast<ptrdiff_t>(i)}),
        Result::kMalformed);
  }
  message.resize(message.size() + 99);
  SignedMessage padded;
  ASSERT_EQ(padded.Parse(identity.context, message), Result::kOk);
  EXPECT_TRUE(padded.VerifyAttributes());
  EXPECT_EQ(padded.content_identifier(), kOptions.content_identifier);
  EXPECT_NEAR(static_cast<double>(padded.signing_time().value_or(0)),
              static_cast<double>(std::time(nullptr)), 60);
  message.back() = std::byte{1};
  EXPECT_EQ(SignedMessage().Parse(identity.context, message),
            Result::kMalformed);
}

}  // namespace
}  // namespace zu::platform
