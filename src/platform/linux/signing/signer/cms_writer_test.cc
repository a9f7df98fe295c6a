#include "platform/linux/signing/signer/cms_writer.h"

#include <gtest/gtest.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <variant>

#include "platform/linux/signing/cms/ber.h"
#include "platform/linux/signing/cms/timestamp.h"
#include "tests/support/http_server.h"
#include "tests/support/timestamp_authority.h"

namespace zu::platform {
namespace {

using Bytes = std::vector<std::byte>;

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

  // The token's time, or what was wrong.
  std::variant<int64_t, std::string> Stamp(const TimestampSource& source) {
    std::string error;
    const auto der =
        CreateCms(*identity_, kDigest, {.timestamp = source}, error);
    if (!der) return error;
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
  constexpr int64_t kTime = 1'700'000'000;
  Bytes earlier;
  const struct {
    const char* name;
    std::function<Bytes(const Bytes& request)> answer;
    std::variant<int64_t, std::string> result;
  } cases[] = {
      {"granted",
       [&](const Bytes& request) {
         return earlier = test::AnswerTimestampRequest(tsa_, request, kTime);
       },
       kTime},
      {"answer to another request", [&](const Bytes&) { return earlier; },
       "the responder's timestamp is not the one that was asked for"},
      {"refused",
       [](const Bytes&) { return ToBytes("\x30\x05\x30\x03\x02\x01\x02"); },
       "the responder refuses with status 2"},
      {"something else", [](const Bytes&) { return ToBytes("<html>"); },
       "no timestamp in the answer"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const test::HttpServer responder([&](const auto& request) {
      return ToText(c.answer(ToBytes(request.body)));
    });
    auto result = Stamp(TimestampFromResponder(responder.url()));
    if (auto* const error = std::get_if<std::string>(&result)) {
      EXPECT_EQ(error->substr(0, responder.url().size()), responder.url());
      error->erase(0, responder.url().size() + 2);
    }
    EXPECT_EQ(result, c.result);
  }
}

TEST_F(CmsWriterTest, TakesATimestampFromAFile) {
  constexpr int64_t kTime = 1'344'633'954;
  char pattern[] = "/tmp/zu_cms_writer.XXXXXX";
  const std::filesystem::path directory = ::mkdtemp(pattern);
  const std::string path = directory / "token";
  // Elliptic-curve signatures are never the same twice, so the file is written
  // when the value is known.
  const auto stamp = [&](std::function<Bytes(Bytes value)> content) {
    return Stamp([&](std::span<const std::byte> value, std::string& error) {
      std::ofstream(path) << ToText(content({value.begin(), value.end()}));
      return TimestampFromFile(path)(value, error);
    });
  };
  const auto token = [&](const Bytes& value) {
    return test::MakeTimestampToken(tsa_, value, kTime);
  };
  using Result = std::variant<int64_t, std::string>;
  EXPECT_EQ(stamp(token), Result(kTime));
  EXPECT_EQ(stamp([&](Bytes value) {
              const Bytes bytes = token(value);
              return EncodeDer(kBerSequence,
                               {ToBytes("\x30\x03\x02\x01\x01"), bytes});
            }),
            Result(kTime));
  EXPECT_EQ(stamp([&](Bytes) { return token(kDigest); }),
            Result("the timestamp is not one of this signature"));
  EXPECT_EQ(Stamp(TimestampFromFile(directory / "none")),
            Result((directory / "none").string() + ": cannot be read"));
  std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace zu::platform
