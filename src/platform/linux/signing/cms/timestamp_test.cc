#include "platform/linux/signing/cms/timestamp.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>
#include <algorithm>
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
// The end of an object identifier.
const std::vector<uint8_t> kSignerReference = {9, 16, 2, 47};

void TakeReferenceAway(EditableMessage& message) {
  message.Attribute(kSignerReference).parts[0].octets.back() = std::byte{99};
}

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
    bool sign_anew;
    bool good;
  } cases[] = {
      {"as made", [](auto&) {}, false, true},
      {"content changed",
       [](auto& m) {
         BerNode& info = m.data().parts[2].parts[1].parts[0];
         info.octets.back() ^= std::byte{1};
       },
       false, false},
      {"attribute changed", TakeReferenceAway, false, false},
      {"without reference to the signer", TakeReferenceAway, true, true},
      {"reference to another",
       [&](auto& m) {
         BerNode* node = &m.Attribute(kSignerReference).parts[1].parts[0];
         while (node->tag != kBerOctetString) node = &node->parts[0];
         node->octets[0] ^= std::byte{1};
       },
       true, false},
      {"reference twice",
       [&](auto& m) {
         const BerNode reference = m.Attribute(kSignerReference);
         m.attributes().parts.push_back(reference);
       },
       true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EditableMessage edited{BerNode::Parse(token)};
    c.apply(edited);
    if (c.sign_anew) edited.SignAttributes(*signer);
    const Bytes bytes = edited.root.Encode();
    const auto timestamp = VerifyTimestampToken(signer->context, bytes, kValue);
    ASSERT_EQ(timestamp.has_value(), c.good);
    EXPECT_FALSE(VerifyTimestampToken(signer->context, bytes, Bytes(64)));
    if (timestamp) {
      EXPECT_EQ(timestamp->time, kTime);
    }
  }
  // The same content, but not said to be a timestamp's.
  const BerNode info =
      EditableMessage{BerNode::Parse(token)}.data().parts[2].parts[1].parts[0];
  const Bytes other =
      test::MakeMessage(credential, NID_pkcs7_data, info.octets);
  EXPECT_FALSE(VerifyTimestampToken(signer->context, other, kValue));
}

TEST(TimestampInfoTest, IsParsed) {
  const std::string head =  // Up to the time.
      "\2\1\1\6\1\x2a\x30\x0f\x30\x0b\6\x09"
      "\x60\x86\x48\1\x65\3\4\2\1\4\0\2\1\7"s;
  const std::string time =
      "\x18\x0f"
      "20120810212554Z";
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {time, ""},
      {time + "\x30\3\2\1\1\1\1\xff\2\1z\xa0\0\xa1\0"s, "z"},
      {"\x17\x0d"
       "120810212554Z",
       std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [fields, nonce] : cases) {
    SCOPED_TRACE(fields);
    const std::string text = head + fields;
    Bytes bytes = EncodeDer(kBerSequence, {std::as_bytes(std::span(text))});
    const auto info = ParseTimestampInfo(bytes);
    ASSERT_EQ(info.has_value(), nonce.has_value());
    if (!info) continue;
    EXPECT_EQ(info->time, kTime);
    const auto octets = std::as_bytes(std::span(*nonce));
    EXPECT_TRUE(std::ranges::equal(info->nonce.value_or(Bytes()), octets));
    bytes.resize(bytes.size() + 1);
    EXPECT_FALSE(ParseTimestampInfo(bytes));
  }
}

}  // namespace
}  // namespace zu::platform
