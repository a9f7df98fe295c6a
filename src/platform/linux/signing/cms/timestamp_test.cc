#include "platform/linux/signing/cms/timestamp.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <string_view>

#include "tests/support/timestamp_authority.h"

namespace zu::platform {
namespace {

TEST(TimestampTest, IsOfItsSignerAndOfTheValue) {
  constexpr int64_t kTime = 1'344'633'954;
  constexpr std::string_view kTimeText = "20120810212554Z";
  const std::vector<std::byte> value(64, std::byte{0x17});
  const auto context = CryptoContext::Create();
  const test::Credential tsa = test::TestAuthority().Issue(
      {.extended_key_usage = "critical,timeStamping"});
  auto token = test::MakeTimestampToken(tsa, value, kTime);
  const auto timestamp = VerifyTimestampToken(context, token, value);
  ASSERT_TRUE(timestamp);
  EXPECT_EQ(timestamp->time, kTime);
  EXPECT_FALSE(
      VerifyTimestampToken(context, token, std::vector<std::byte>(64)));

  const auto found =
      std::ranges::search(token, std::as_bytes(std::span(kTimeText)));
  ASSERT_FALSE(found.empty());
  // One digit of the time, and the end of the signature.
  for (std::byte* const place : {&found.front(), &token.back()}) {
    *place ^= std::byte{1};
    EXPECT_FALSE(VerifyTimestampToken(context, token, value));
    *place ^= std::byte{1};
  }
}

}  // namespace
}  // namespace zu::platform
