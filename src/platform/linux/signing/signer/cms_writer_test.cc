#include "platform/linux/signing/signer/cms_writer.h"

#include <gtest/gtest.h>
#include <functional>

#include "platform/linux/signing/cms/timestamp.h"
#include "tests/support/http_server.h"
#include "tests/support/timestamp_authority.h"

namespace zu::platform {
namespace {

using Bytes = std::vector<std::byte>;

constexpr int64_t kTime = 1'344'633'954;
const Bytes kDigest(32, std::byte{0x5a});

Bytes ToBytes(std::string_view text) {
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

std::string ToText(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

class CmsWriterTest : public ::testing::Test {
 protected:
  CmsWriterTest() {
    std::string error;
    const test::Credential credential = authority_.Issue();
    identity_ = SigningIdentity::FromPem(credential.key,
                                         credential.certificates, error);
    EXPECT_TRUE(identity_) << error;
  }

  // The token's time, if a message was made.
  std::optional<int64_t> Stamp(const TimestampSource& source) {
    std::string error;
    const auto der =
        CreateCms(*identity_, kDigest, {.timestamp = source}, error);
    if (!der) return std::nullopt;
    SignedMessage message;
    EXPECT_EQ(message.Parse(identity_->context, *der),
              SignedMessage::ParseResult::kOk);
    EXPECT_TRUE(message.VerifyAttributes());
    const auto timestamp = VerifyTimestampToken(
        identity_->context, message.timestamp_token().value_or(Bytes()),
        message.signature_value());
    return timestamp ? timestamp->time : 0;
  }

  test::TestAuthority authority_;
  test::Credential tsa_ =
      authority_.Issue({.extended_key_usage = "critical,timeStamping"});
  std::optional<SigningIdentity> identity_;
};

TEST_F(CmsWriterTest, TakesARespondersTimestampIfItIsTheRightOne) {
  Bytes earlier;
  const struct {
    const char* name;
    std::function<Bytes(const Bytes& request)> answer;
    std::optional<int64_t> time;
  } cases[] = {
      {"granted",
       [&](const Bytes& request) {
         return earlier = test::AnswerTimestampRequest(tsa_, request, kTime);
       },
       kTime},
      {"answer to another request", [&](const Bytes&) { return earlier; },
       std::nullopt},
      {"refused",
       [](const Bytes&) { return ToBytes("\x30\x05\x30\x03\x02\x01\x02"); },
       std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const test::HttpServer responder([&](const auto& request) {
      return ToText(c.answer(ToBytes(request.body)));
    });
    EXPECT_EQ(Stamp(TimestampFromResponder(responder.url())), c.time);
  }
}

}  // namespace
}  // namespace zu::platform
