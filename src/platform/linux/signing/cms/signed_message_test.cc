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
const std::vector<uint8_t> kContentType = {9, 3};
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

SigningIdentity Identity(const test::Credential& credential) {
  std::string error;
  auto identity =
      SigningIdentity::FromPem(credential.key, credential.certificates, error);
  EXPECT_TRUE(identity) << error;
  return *std::move(identity);
}

const Bytes kDigest(32, std::byte{0x5a});  // Of some content.
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

// A message changed on its way, or by its signer.
struct Edit {
  const char* name;
  std::function<void(EditableMessage&, const SigningIdentity&)> apply;
  Result result = Result::kOk;
  bool sign_anew = true;
  bool attributes = true;
  bool broken_digests = false;
};

void Repeat(BerNode& parent, const BerNode& part, size_t times = 1) {
  const BerNode copy = part;
  parent.parts.insert(parent.parts.end(), times, copy);
}

void TakeAttributesAway(EditableMessage& message,
                        const SigningIdentity& identity) {
  message.signature().octets = test::SignDigest(identity, kDigest);
  message.signer().parts.erase(message.signer().parts.begin() + 3);
}

void NameByKey(EditableMessage& message, const SigningIdentity& identity) {
  const ASN1_OCTET_STRING* const key =
      X509_get0_subject_key_id(identity.leaf.get());
  const auto octets =
      std::as_bytes(std::span(ASN1_STRING_get0_data(key),
                              static_cast<size_t>(ASN1_STRING_length(key))));
  message.signer().parts[1] = {
      kBerContext0, false, {octets.begin(), octets.end()}};
}

const Edit kEdits[] = {
    {"as written", [](auto&, auto&) {}, Result::kOk, false},
    {"attributes in another order",
     [](auto& m, auto&) { std::ranges::reverse(m.attributes().parts); }},
    {"no attributes", TakeAttributesAway, Result::kOk, false},
    {"no attributes, content of another type",
     [](auto& m, auto& signer) {
       m.type().octets.back() = std::byte{6};
       TakeAttributesAway(m, signer);
     },
     Result::kMalformed, false},
    {"signer named by key", NameByKey},
    {"another content type",
     [](auto& m, auto&) {
       m.Attribute(kContentType).parts[1].parts[0].octets.back() = std::byte{6};
     },
     Result::kMalformed},
    {"digest attribute twice",
     [](auto& m, auto&) {
       Repeat(m.attributes(), m.Attribute(kMessageDigest));
     },
     Result::kMalformed},
    {"digest attribute with two values",
     [](auto& m, auto&) {
       BerNode& values = m.Attribute(kMessageDigest).parts[1];
       Repeat(values, values.parts[0]);
     },
     Result::kMalformed},
    {"too many attributes",
     [](auto& m, auto&) {
       Repeat(m.attributes(), m.Attribute(kDigestList), 64);
     },
     Result::kMalformed},
    {"digest list twice",
     [](auto& m, auto&) { Repeat(m.attributes(), m.Attribute(kDigestList)); },
     Result::kOk, true, true, true},
    {"two signers", [](auto& m, auto&) { Repeat(m.signers(), m.signer()); },
     Result::kUnsupported},
    {"no signer", [](auto& m, auto&) { m.signers().parts.clear(); },
     Result::kUnsupported, false},
    {"signature algorithm with another digest",
     [](auto& m, auto&) { m.signature_algorithm().octets = kSha384WithCurve; },
     Result::kUnsupported},
    {"algorithm spelled otherwise",
     [](auto& m, auto& signer) {
       m.signature_algorithm().octets =
           IsRsa(signer) ? kSha256WithRsa : kCurveKey;
     }},
    {"algorithm of another key",
     [](auto& m, auto& signer) {
       m.signature_algorithm().octets =
           IsRsa(signer) ? kCurveKey : kSha256WithRsa;
     },
     Result::kOk, true, false},
    {"certificate of another kind",
     [](auto& m, auto&) { m.certificates().parts.push_back({0xa3}); }},
    {"too many certificates",
     [](auto& m, auto&) {
       Repeat(m.certificates(), m.certificates().parts[0], 15);
     },
     Result::kMalformed},
};

TEST(SignedMessageTest, SaysWhatHolds) {
  const test::TestAuthority root;
  const test::TestAuthority middle("Middle", &root);
  for (const unsigned rsa_bits : {0u, 2048u}) {
    const auto identity = Identity(middle.Issue({.rsa_bits = rsa_bits}));
    const Bytes created = Create(identity);
    for (const Edit& edit : kEdits) {
      SCOPED_TRACE(std::string(edit.name) + (rsa_bits != 0 ? ", RSA" : ""));
      EditableMessage edited{BerNode::Parse(created)};
      edit.apply(edited, identity);
      if (edit.sign_anew) edited.SignAttributes(identity);
      SignedMessage message;
      ASSERT_EQ(message.Parse(identity.context, edited.root.Encode()),
                edit.result);
      if (edit.result != Result::kOk) continue;
      EXPECT_EQ(message.VerifyAttributes(), edit.attributes);
      EXPECT_TRUE(message.VerifyContent(kDigest));
      EXPECT_FALSE(message.VerifyContent(Bytes(32)));
      EXPECT_FALSE(message.VerifyContent({}));
      EXPECT_EQ(message.has_broken_directory_digests(), edit.broken_digests);
    }
  }
}

TEST(SignedMessageTest, EndsWhereItSays) {
  const SigningIdentity identity = Identity(test::TestAuthority().Issue());
  Bytes message = Create(identity);
  for (size_t i = 0; i < message.size(); ++i) {
    Bytes start = message;
    start.resize(i);
    EXPECT_EQ(SignedMessage().Parse(identity.context, start),
              Result::kMalformed);
  }
  message.resize(message.size() + 99);
  SignedMessage padded;
  ASSERT_EQ(padded.Parse(identity.context, message), Result::kOk);
  EXPECT_EQ(padded.content_identifier(), kOptions.content_identifier);
  EXPECT_NEAR(static_cast<double>(padded.signing_time().value_or(0)),
              static_cast<double>(std::time(nullptr)), 60);
  message.back() = std::byte{1};
  EXPECT_EQ(SignedMessage().Parse(identity.context, message),
            Result::kMalformed);
}

}  // namespace
}  // namespace zu::platform
