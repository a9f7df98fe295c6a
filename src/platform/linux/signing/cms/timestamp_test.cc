#include "platform/linux/signing/cms/timestamp.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <functional>
#include <string>

#include "platform/linux/signing/cms/ber.h"
#include "platform/linux/signing/signer/cms_writer.h"
#include "tests/support/http_server.h"
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
const std::vector<uint8_t> kContentType = {9, 3};
const std::vector<uint8_t> kSignerReference = {9, 16, 2, 47};
const test::LeafOptions kStamping{.extended_key_usage =
                                      "critical,timeStamping"};

void TakeReferenceAway(EditableMessage& message) {
  message.Attribute(kSignerReference).parts[0].octets.back() = std::byte{99};
}

TEST(TimestampTest, IsOfItsSignerAndOfTheValue) {
  const test::TestAuthority root;
  const test::TestAuthority middle("Middle", &root);
  const test::Credential credential = middle.Issue(kStamping);
  const SigningIdentity signer = test::ToIdentity(credential);
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
      {"not said to be a timestamp",
       [](auto& m) {
         m.type().octets.back() ^= std::byte{1};
         m.Attribute(kContentType).parts[1].parts[0].octets.back() ^=
             std::byte{1};
       },
       true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EditableMessage edited{BerNode::Parse(token)};
    c.apply(edited);
    if (c.sign_anew) edited.SignAttributes(signer);
    const Bytes bytes = edited.root.Encode();
    const auto timestamp = VerifyTimestampToken(signer.context, bytes, kValue);
    ASSERT_EQ(timestamp.has_value(), c.good);
    EXPECT_FALSE(VerifyTimestampToken(signer.context, bytes, Bytes(64)));
    if (timestamp) {
      EXPECT_EQ(timestamp->time, kTime);
    }
  }
}

// What signing takes from a responder: nothing but the answer to its question.
TEST(TimestampTest, ComesFromAResponder) {
  const test::TestAuthority authority;
  const test::Credential tsa = authority.Issue(kStamping);
  enum { kGrant, kRepeat, kRefuse } mode = kGrant;
  std::string answer;
  const test::HttpServer responder([&](const auto& request) {
    if (mode == kRefuse) return "\x30\x05\x30\x03\x02\x01\x02"s;
    if (mode == kGrant) {
      const Bytes granted = test::AnswerTimestampRequest(
          tsa, std::as_bytes(std::span(request.body)), kTime);
      answer.assign(reinterpret_cast<const char*>(granted.data()),
                    granted.size());
    }
    return answer;
  });
  for (const auto next : {kGrant, kRepeat, kRefuse}) {
    mode = next;
    std::string error;
    const auto token = TimestampFromResponder(responder.url())(kValue, error);
    ASSERT_EQ(token.has_value(), next == kGrant) << error;
    if (!token) continue;
    const auto timestamp =
        VerifyTimestampToken(CryptoContext::Create(), *token, kValue);
    EXPECT_EQ(timestamp ? timestamp->time : 0, kTime);
  }
}

}  // namespace
}  // namespace zu::platform
