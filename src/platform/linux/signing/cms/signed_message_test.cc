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
const std::vector<uint8_t> kIdentifier = {9, 16, 2, 7};
const std::vector<uint8_t> kDigestList = {100, 9, 1};
const std::vector<uint8_t> kDigests = {100, 9, 2};

Bytes ToBytes(std::initializer_list<int> octets) {
  Bytes bytes;
  for (const int octet : octets) bytes.push_back(static_cast<std::byte>(octet));
  return bytes;
}

// Algorithms.
const Bytes kCurveKey = ToBytes({0x2a, 0x86, 0x48, 0xce, 0x3d, 2, 1});
const Bytes kSha256WithRsa =
    ToBytes({0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 1, 1, 11});

bool IsRsa(const SigningIdentity& identity) {
  return EVP_PKEY_get_base_id(identity.key.get()) == EVP_PKEY_RSA;
}

Bytes ToDer(const X509& certificate) {
  Bytes der(static_cast<size_t>(i2d_X509(&certificate, nullptr)));
  auto* position = reinterpret_cast<unsigned char*>(der.data());
  i2d_X509(&certificate, &position);
  return der;
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

class SignedMessageTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    root_ = new test::TestAuthority;
    const test::TestAuthority middle("Middle", root_);
    curve_ = new SigningIdentity(Identity(middle.Issue()));
    rsa_ = new SigningIdentity(Identity(middle.Issue({.rsa_bits = 2048})));
  }
  static void TearDownTestSuite() {
    delete rsa_;
    delete curve_;
    delete root_;
  }

  static Bytes Create(const SigningIdentity& identity) {
    std::string error;
    const auto message = CreateCms(identity, kDigest, kOptions, error);
    EXPECT_TRUE(message) << error;
    return message.value_or(Bytes());
  }

  inline static test::TestAuthority* root_ = nullptr;
  inline static SigningIdentity* curve_ = nullptr;
  inline static SigningIdentity* rsa_ = nullptr;
};

// A message changed on its way, or by its signer.
struct Edit {
  const char* name;
  std::function<void(EditableMessage&, const SigningIdentity&)> apply;
  Result result = Result::kOk;
  bool attributes = true;
  bool content = true;
  size_t certificates = 2;
};

const auto kNoEdit = [](auto&, auto&) {};

void Repeat(BerNode& parent, const BerNode& part, size_t times = 1) {
  const BerNode copy = part;
  parent.parts.insert(parent.parts.end(), times, copy);
}

// All lengths that may be, but for those inside of what is hashed.
void MakeIndefinite(EditableMessage& message) {
  BerNode& data = message.data();
  for (BerNode* node :
       {&message.root, &message.root.parts[1], &data, &data.parts[1],
        &data.parts[2], &message.certificates(), &message.signers(),
        &message.signer(), &message.signer().parts[1],
        &message.signer().parts[2], &message.attributes()}) {
    node->indefinite = true;
  }
  const Bytes value = message.signature().octets;
  const auto middle = value.begin() + 10;
  message.signature() = {kBerOctetString | kBerConstructed,
                         true,
                         {},
                         {{kBerOctetString, false, {value.begin(), middle}},
                          {kBerOctetString, false, {middle, value.end()}}}};
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
    {"as written", kNoEdit},
    {"attributes in another order",
     [](auto& m, auto& signer) {
       std::ranges::reverse(m.attributes().parts);
       m.SignAttributes(signer);
     }},
    {"order changed after signing",
     [](auto& m, auto&) { std::ranges::reverse(m.attributes().parts); },
     Result::kOk, false},
    {"indefinite lengths", [](auto& m, auto&) { MakeIndefinite(m); }},
    {"no attributes", TakeAttributesAway},
    {"no attributes, signature changed",
     [](auto& m, auto& signer) {
       TakeAttributesAway(m, signer);
       m.signer().parts[4].octets.back() ^= std::byte{1};
     },
     Result::kOk, true, false},
    {"no attributes, content of another type",
     [](auto& m, auto& signer) {
       m.type().octets.back() = std::byte{6};
       TakeAttributesAway(m, signer);
     },
     Result::kMalformed},
    {"signer named by key", NameByKey},
    {"attribute changed",
     [](auto& m, auto&) {
       m.Attribute(kIdentifier).parts[1].parts[0].octets[0] ^= std::byte{1};
     },
     Result::kOk, false},
    {"made for another content",
     [](auto& m, auto& signer) {
       m.Attribute(kMessageDigest).parts[1].parts[0].octets[0] ^= std::byte{1};
       m.SignAttributes(signer);
     },
     Result::kOk, true, false},
    {"content type missing",
     [](auto& m, auto& signer) {
       std::swap(m.Attribute(kContentType), m.attributes().parts.back());
       m.attributes().parts.pop_back();
       m.SignAttributes(signer);
     },
     Result::kMalformed},
    {"another content type",
     [](auto& m, auto& signer) {
       m.Attribute(kContentType).parts[1].parts[0].octets.back() = std::byte{6};
       m.SignAttributes(signer);
     },
     Result::kMalformed},
    {"digest attribute twice",
     [](auto& m, auto& signer) {
       Repeat(m.attributes(), m.Attribute(kMessageDigest));
       m.SignAttributes(signer);
     },
     Result::kMalformed},
    {"digest attribute with two values",
     [](auto& m, auto& signer) {
       BerNode& values = m.Attribute(kMessageDigest).parts[1];
       Repeat(values, values.parts[0]);
       m.SignAttributes(signer);
     },
     Result::kMalformed},
    {"too many attributes",
     [](auto& m, auto& signer) {
       Repeat(m.attributes(), m.Attribute(kIdentifier), 64);
       m.SignAttributes(signer);
     },
     Result::kMalformed},
    {"two signers", [](auto& m, auto&) { Repeat(m.signers(), m.signer()); },
     Result::kUnsupported},
    {"no signer", [](auto& m, auto&) { m.signers().parts.clear(); },
     Result::kUnsupported},
    {"unknown digest",
     [](auto& m, auto&) { m.digest_algorithm().octets.back() = std::byte{99}; },
     Result::kUnsupported},
    {"unknown signature algorithm",
     [](auto& m, auto&) {
       m.signature_algorithm().octets.back() = std::byte{99};
     },
     Result::kUnsupported},
    {"signature algorithm with another digest",  // ecdsa-with-SHA384
     [](auto& m, auto&) {
       m.signature_algorithm().octets =
           ToBytes({0x2a, 0x86, 0x48, 0xce, 0x3d, 4, 3, 3});
     },
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
     Result::kOk, false},
    {"certificate of another kind",
     [](auto& m, auto&) { m.certificates().parts.push_back({0xa3}); }},
    {"issuer's certificate only",
     [](auto& m, auto& signer) {
       std::erase_if(m.certificates().parts, [&](const BerNode& certificate) {
         return certificate.Encode() == ToDer(*signer.leaf);
       });
     },
     Result::kOk, false, true, 1},
    {"too many certificates",
     [](auto& m, auto&) {
       Repeat(m.certificates(), m.certificates().parts[0], 15);
     },
     Result::kMalformed, false, false, 16},
};

TEST_F(SignedMessageTest, SaysWhatHolds) {
  for (const SigningIdentity* const identity : {curve_, rsa_}) {
    const Bytes created = Create(*identity);
    for (const Edit& edit : kEdits) {
      SCOPED_TRACE(std::string(edit.name) + (identity == rsa_ ? ", RSA" : ""));
      EditableMessage edited{BerNode::Parse(created)};
      edit.apply(edited, *identity);
      SignedMessage message;
      ASSERT_EQ(message.Parse(identity->context, edited.root.Encode()),
                edit.result);
      ASSERT_EQ(message.certificates().size(), edit.certificates);
      if (edit.result != Result::kOk) continue;
      EXPECT_EQ(message.VerifyAttributes(), edit.attributes);
      EXPECT_EQ(message.VerifyContent(kDigest), edit.content);
      EXPECT_FALSE(message.VerifyContent(Bytes(32)));
      EXPECT_FALSE(message.VerifyContent({}));
    }
  }
}

TEST_F(SignedMessageTest, TellsWhatWasSigned) {
  SignedMessage message;
  Bytes padded = Create(*curve_);
  padded.resize(padded.size() + 99);
  ASSERT_EQ(message.Parse(curve_->context, padded), Result::kOk);
  EXPECT_EQ(X509_cmp(message.certificates()[0].get(), curve_->leaf.get()), 0);
  EXPECT_EQ(message.content(), std::nullopt);
  EXPECT_EQ(message.content_type(), NID_pkcs7_data);
  EXPECT_EQ(EVP_MD_get_type(&message.digest()), NID_sha256);
  EXPECT_EQ(message.content_identifier(), kOptions.content_identifier);
  EXPECT_NEAR(static_cast<double>(message.signing_time().value_or(0)),
              static_cast<double>(std::time(nullptr)), 60);
  EXPECT_EQ(message.directory_digest_list(), kOptions.directory_digest_list);
  ASSERT_EQ(message.directory_digests().size(), 2u);
  for (const auto& expected : kOptions.directory_digests) {
    EXPECT_TRUE(std::ranges::any_of(
        message.directory_digests(), [&](const auto& digest) {
          return digest.nid == expected.nid && digest.value == expected.value;
        }));
  }
  EXPECT_FALSE(message.has_broken_directory_digests());
  EXPECT_EQ(message.timestamp_token(), std::nullopt);

  padded.back() = std::byte{1};
  EXPECT_EQ(SignedMessage().Parse(curve_->context, padded), Result::kMalformed);
}

TEST_F(SignedMessageTest, TellsBrokenDirectoryDigestsFromNone) {
  const Bytes created = Create(*curve_);
  const struct {
    const char* name;
    std::function<void(EditableMessage&)> apply;
    bool broken;
    size_t digests;
  } cases[] = {
      {"list twice",
       [](auto& m) { Repeat(m.attributes(), m.Attribute(kDigestList)); }, true,
       2},
      {"digest without its algorithm",
       [](auto& m) {
         auto& digest = m.Attribute(kDigests).parts[1].parts[1];
         digest.parts.erase(digest.parts.begin());
       },
       true, 0},
      {"other attributes",
       [](auto& m) {
         m.Attribute(kDigestList).parts[0].octets.back() = std::byte{77};
         m.Attribute(kDigests).parts[0].octets.back() = std::byte{77};
       },
       false, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EditableMessage edited{BerNode::Parse(created)};
    c.apply(edited);
    edited.SignAttributes(*curve_);
    SignedMessage message;
    ASSERT_EQ(message.Parse(curve_->context, edited.root.Encode()),
              Result::kOk);
    EXPECT_EQ(message.has_broken_directory_digests(), c.broken);
    EXPECT_EQ(message.directory_digests().size(), c.digests);
  }
}

// What is believed of a damaged message is what the undamaged one says.
TEST_F(SignedMessageTest, BelievesNoDamage) {
  const Bytes created = Create(*curve_);
  SignedMessage original;
  ASSERT_EQ(original.Parse(curve_->context, created), Result::kOk);
  for (size_t i = 0; i < created.size(); ++i) {
    SCOPED_TRACE(i);
    const Bytes start(created.begin(),
                      created.begin() + static_cast<ptrdiff_t>(i));
    EXPECT_EQ(SignedMessage().Parse(curve_->context, start),
              Result::kMalformed);
    for (const int change : {0x01, 0xff}) {
      Bytes damaged = created;
      damaged[i] ^= static_cast<std::byte>(change);
      SignedMessage message;
      if (message.Parse(curve_->context, damaged) != Result::kOk ||
          !message.VerifyContent(kDigest) || !message.VerifyAttributes()) {
        continue;
      }
      EXPECT_TRUE(message.has_signed_attributes());
      EXPECT_EQ(message.content_identifier(), original.content_identifier());
      EXPECT_EQ(message.signing_time(), original.signing_time());
      EXPECT_EQ(message.directory_digest_list(),
                original.directory_digest_list());
      EXPECT_EQ(message.directory_digests().size(), 2u);
    }
  }
}

}  // namespace
}  // namespace zu::platform
