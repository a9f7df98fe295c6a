#include "platform/linux/signing/cms/timestamp.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>
#include <functional>
#include <string>

#include "platform/linux/signing/cms/ber.h"
#include "platform/linux/signing/signer/signing_identity.h"
#include "tests/support/message_editor.h"
#include "tests/support/timestamp_authority.h"

namespace zu::platform {
namespace {

using namespace std::string_literals;
using test::BerNode;
using test::EditableMessage;
using Bytes = std::vector<std::byte>;

constexpr int64_t kTime = 1'344'633'954;  // 2012-08-10 21:25:54
const Bytes kValue(64, std::byte{0x17});
// The ends of object identifiers.
const std::vector<uint8_t> kMessageDigest = {9, 4};
const std::vector<uint8_t> kSignerReference = {9, 16, 2, 47};

TEST(TimestampTest, IsOfItsSignerAndOfTheValue) {
  const test::TestAuthority root;
  const test::TestAuthority middle("Middle", &root);
  const test::Credential credential =
      middle.Issue({.extended_key_usage = "critical,timeStamping"});
  std::string error;
  const auto signer =
      SigningIdentity::FromPem(credential.key, credential.certificates, error);
  ASSERT_TRUE(signer) << error;
  const Bytes token = test::MakeTimestampToken(credential, kValue, kTime);

  const struct {
    const char* name;
    std::function<void(EditableMessage&)> apply;
    bool good;
  } cases[] = {
      {"as made", [](auto&) {}, true},
      {"signed anew", [&](auto& m) { m.SignAttributes(*signer); }, true},
      {"content changed",
       [](auto& m) {
         BerNode& info = m.data().parts[2].parts[1].parts[0];
         info.octets.back() ^= std::byte{1};
       },
       false},
      {"attribute changed",
       [](auto& m) {
         m.Attribute(kSignerReference).parts[0].octets.back() = std::byte{99};
       },
       false},
      {"without reference to the signer",
       [&](auto& m) {
         m.Attribute(kSignerReference).parts[0].octets.back() = std::byte{99};
         m.SignAttributes(*signer);
       },
       true},
      {"reference to another",
       [&](auto& m) {
         BerNode* node = &m.Attribute(kSignerReference).parts[1].parts[0];
         while (node->tag != kBerOctetString) node = &node->parts[0];
         node->octets[0] ^= std::byte{1};
         m.SignAttributes(*signer);
       },
       false},
      {"reference twice",
       [&](auto& m) {
         const BerNode reference = m.Attribute(kSignerReference);
         m.attributes().parts.push_back(reference);
         m.SignAttributes(*signer);
       },
       false},
      {"reference of the older kind, broken",
       [&](auto& m) {
         m.Attribute(kSignerReference).parts[0].octets.back() = std::byte{12};
         m.SignAttributes(*signer);
       },
       false},
      {"without certificates", [](auto& m) { m.certificates().parts.clear(); },
       false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EditableMessage edited{BerNode::Parse(token)};
    c.apply(edited);
    const Bytes bytes = edited.root.Encode();
    const auto timestamp = VerifyTimestampToken(signer->context, bytes, kValue);
    ASSERT_EQ(timestamp.has_value(), c.good);
    EXPECT_FALSE(VerifyTimestampToken(signer->context, bytes, Bytes(64)));
    if (!timestamp) continue;
    EXPECT_EQ(timestamp->time, kTime);
    EXPECT_EQ(timestamp->nonce, std::nullopt);
    ASSERT_EQ(timestamp->certificates.size(), 2u);
    EXPECT_EQ(X509_cmp(timestamp->certificates[0].get(), signer->leaf.get()),
              0);
  }
  // The same content, but not said to be a timestamp's.
  const BerNode info =
      EditableMessage{BerNode::Parse(token)}.data().parts[2].parts[1].parts[0];
  for (const auto& [type, good] :
       {std::pair(NID_id_smime_ct_TSTInfo, true), {NID_pkcs7_data, false}}) {
    const Bytes message = test::MakeMessage(credential, type, info.octets);
    EXPECT_EQ(
        VerifyTimestampToken(signer->context, message, kValue).has_value(),
        good);
  }
}

TEST(TimestampInfoTest, IsParsed) {
  const std::string sha256 = "\x30\x0b\6\x09\x60\x86\x48\1\x65\3\4\2\1"s;
  const std::string imprint = "\x30\x0f" + sha256 + "\4\0"s;
  const std::string head = "\2\1\1\6\1\x2a" + imprint + "\2\1\7";
  const std::string time =
      "\x18\x0f"
      "20120810212554Z";
  const std::string accuracy_and_order = "\x30\3\2\1\1\1\1\xff";
  const struct {
    const char* name;
    std::string fields;
    std::optional<int64_t> time;
    std::string nonce = {};
  } cases[] = {
      {"least", head + time, kTime},
      {"nonce", head + time + "\2\2\x40z", kTime, "\x40z"},
      {"all fields", head + time + accuracy_and_order + "\2\1z\xa0\0\xa1\0"s,
       kTime, "z"},
      {"fraction",
       head + "\x18\x13"
              "20120810212554.987Z",
       kTime},
      {"no date",
       head + "\x18\x0f"
              "20121310212554Z",
       std::nullopt},
      {"of another type",
       head + "\x17\x0d"
              "120810212554Z",
       std::nullopt},
      {"another version", "\2\1\2" + head.substr(3) + time, std::nullopt},
      {"more in the imprint",
       "\2\1\1\6\1\x2a\x30\x11" + sha256 + "\4\0\5\0\2\1\7"s + time,
       std::nullopt},
      {"no serial number", head.substr(0, head.size() - 3) + time,
       std::nullopt},
      {"no time", head, std::nullopt},
      {"nothing", "", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = EncodeDer(kBerSequence, {std::as_bytes(std::span(c.fields))});
    const auto info = ParseTimestampInfo(bytes);
    ASSERT_EQ(info.has_value(), c.time.has_value());
    if (!info) continue;
    EXPECT_EQ(info->time, c.time);
    EXPECT_EQ(info->digest_nid, NID_sha256);
    const auto nonce = std::as_bytes(std::span(c.nonce));
    EXPECT_EQ(info->nonce.value_or(Bytes()), Bytes(nonce.begin(), nonce.end()));
    bytes.resize(bytes.size() + 1);
    EXPECT_FALSE(ParseTimestampInfo(bytes));
  }
}

}  // namespace
}  // namespace zu::platform
