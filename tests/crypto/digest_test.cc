// The two digests through the exported names: vectors of an independent model,
// every way to split a message, and what is left in the contexts.

#include <gtest/gtest.h>
#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <fstream>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "ZuHelper.h"
#include "support/hex.h"

namespace {

using Bytes = std::vector<uint8_t>;

// The message that the model makes for a length.
Bytes MessageOf(uint32_t length) {
  Bytes message(length);
  uint32_t state = length;
  for (uint8_t& byte : message) {
    state = state * 1103515245 + 12345;
    byte = static_cast<uint8_t>(state >> 24);
  }
  return message;
}

std::string Hex(const Bytes& bytes) {
  std::string text(2 * bytes.size(), ' ');
  zu::WriteUpperHex(std::as_bytes(std::span(bytes)), text.data());
  return text;
}

using Pieces = std::array<std::span<const uint8_t>, 3>;

// What the contexts hold before must not matter: `count` and the like are set
// by the opening calls, the rest is covered by the message or the padding.
std::string Md5(const Pieces& message) {
  ZuMD5Context context;
  std::memset(&context, 0xA5, sizeof context);
  MD5Open(&context);
  for (const auto& piece : message) {
    MD5Digest(&context, piece.data(), static_cast<uint32_t>(piece.size()));
  }
  Bytes digest(ZU_MD5_OUTPUT_SIZE);
  MD5Close(&context, digest.data());
  const Bytes wiped(sizeof context);
  EXPECT_EQ(std::memcmp(&context, wiped.data(), sizeof context), 0);
  return Hex(digest);
}

// By the calls that make bytes and by those that make text.
std::string Sha256(const Pieces& message) {
  ZuSHA256Context context;
  std::memset(&context, 0xA5, sizeof context);
  ZuSHA256_Init(&context);
  ZuSHA256Context* const text_context = Zu_SHA256_Start();
  for (const auto& piece : message) {
    const auto size = static_cast<uint32_t>(piece.size());
    ZuSHA256_Update(&context, piece.data(), size);
    Zu_SHA256_Update(text_context, piece.data(), size);
  }
  Bytes digest(ZU_SHA256_SIZE);
  ZuSHA256_Final(&context, digest.data());
  std::string text(ZU_SHA256_TEXT_SIZE + 1, '#');
  Zu_SHA256_Finish(text_context, text.data());
  EXPECT_EQ(text, Hex(digest) + '\0' + '#');
  return Hex(digest);
}

TEST(DigestTest, AgreesWithTheModelHoweverSplit) {
  std::ifstream file(ZU_TEST_DATA "/digest_vectors.txt");
  int count = 0;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("#")) continue;
    std::istringstream fields(line);
    std::string name, expected;
    uint32_t length = 0;
    ASSERT_TRUE(fields >> name >> length >> expected) << line;
    std::ranges::transform(expected, expected.begin(),
                           [](unsigned char c) { return std::toupper(c); });
    const auto digest = name == "md5" ? &Md5 : &Sha256;
    const Bytes bytes = MessageOf(length);
    const std::span message(bytes);
    const uint32_t last = length < 130 ? length : 0;  // A few blocks are all.
    for (uint32_t i = 0; i <= last; ++i) {
      for (uint32_t j = i; j <= last; ++j) {
        ASSERT_EQ(digest({message.first(i), message.subspan(i, j - i),
                          message.subspan(j)}),
                  expected)
            << name << " of " << length << " bytes: " << i << ' ' << j;
      }
    }
    ++count;
  }
  EXPECT_EQ(count, 40);
}

// The length field has 32 bits: 512 MiB more is the same.
TEST(Sha256Test, LengthsWrap) {
  ZuSHA256Context context;
  ZuSHA256_Init(&context);
  ZuSHA256_Update(&context, MessageOf(100).data(), 100);
  EXPECT_EQ(context.total_length, 64u);
  EXPECT_EQ(context.pending_length, 36u);
  ZuSHA256Context longer = context;
  longer.total_length += 1u << 29;
  Bytes digest(ZU_SHA256_SIZE), longer_digest(ZU_SHA256_SIZE);
  ZuSHA256_Final(&context, digest.data());
  ZuSHA256_Final(&longer, longer_digest.data());
  EXPECT_EQ(digest, longer_digest);
}

}  // namespace
