// The two digests through the exported names: vectors of an independent model,
// every way to split a message, and what is left in the contexts.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "ZuHelper.h"
#include "tests/crypto/plain_digests.h"

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
  std::string text;
  for (const uint8_t byte : bytes) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

// Each is fed as the pieces lie in `cuts`, which are ascending offsets.
template <typename Update>
void Feed(const Bytes& message, const std::vector<size_t>& cuts,
          Update update) {
  size_t begin = 0;
  for (const size_t cut : cuts) {
    update(message.data() + begin, static_cast<uint32_t>(cut - begin));
    begin = cut;
  }
  update(message.data() + begin, static_cast<uint32_t>(message.size() - begin));
}

// What the contexts hold before must not matter: `count` and the like are set
// by the opening calls, the rest is covered by the message or the padding.
Bytes Md5(const Bytes& message, const std::vector<size_t>& cuts = {}) {
  ZuMD5Context context;
  std::memset(&context, 0xA5, sizeof context);
  MD5Open(&context);
  Feed(message, cuts, [&](const uint8_t* data, uint32_t length) {
    MD5Digest(&context, data, length);
  });
  Bytes digest(ZU_MD5_OUTPUT_SIZE);
  MD5Close(&context, digest.data());
  const Bytes wiped(sizeof context);
  EXPECT_EQ(std::memcmp(&context, wiped.data(), sizeof context), 0);
  return digest;
}

Bytes Sha256(const Bytes& message, const std::vector<size_t>& cuts = {}) {
  ZuSHA256Context context;
  std::memset(&context, 0xA5, sizeof context);
  ZuSHA256_Init(&context);
  Feed(message, cuts, [&](const uint8_t* data, uint32_t length) {
    ZuSHA256_Update(&context, data, length);
  });
  Bytes digest(ZU_SHA256_SIZE);
  ZuSHA256_Final(&context, digest.data());
  return digest;
}

TEST(DigestTest, AgreesWithTheModel) {
  std::ifstream file(ZU_TEST_DATA "/digest_vectors.txt");
  int count = 0;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("#")) continue;
    std::istringstream fields(line);
    std::string name, expected;
    uint32_t length = 0;
    ASSERT_TRUE(fields >> name >> length >> expected) << line;
    const Bytes message = MessageOf(length);
    EXPECT_EQ(Hex(name == "md5" ? Md5(message) : Sha256(message)), expected)
        << name << " of " << length << " bytes";
    ++count;
  }
  EXPECT_EQ(count, 40);
}

TEST(DigestTest, DoesNotDependOnTheSplit) {
  const Bytes message = MessageOf(200);
  const Bytes md5 = Md5(message);
  const Bytes sha256 = Sha256(message);
  for (size_t i = 0; i <= message.size(); ++i) {
    for (size_t j = i; j <= message.size(); ++j) {
      ASSERT_EQ(Md5(message, {i, j}), md5) << i << ' ' << j;
      ASSERT_EQ(Sha256(message, {i, j}), sha256) << i << ' ' << j;
    }
  }
}

// Many blocks at once, at addresses of every kind, from a state that has its
// upper halves filled.
TEST(DigestTest, LongMessagesAgreeWithThePlainForm) {
  std::mt19937 random(20);
  std::uniform_int_distribution<uint32_t> blocks_of_message(1, 300);
  for (int round = 0; round < 50; ++round) {
    Bytes message = MessageOf(64 * blocks_of_message(random) + 1);
    std::rotate(message.begin(), message.begin() + round, message.end());
    const auto* blocks = reinterpret_cast<const std::byte*>(&message[1]);
    const size_t size = message.size() - 1;
    ZuMD5Context md5;
    ZuSHA256Context sha256;
    MD5Open(&md5);
    ZuSHA256_Init(&sha256);
    ZuMD5Context plain_md5 = md5;
    ZuSHA256Context plain_sha256 = sha256;
    for (size_t i = 0; i < size; i += 64) {
      zu::test::PlainMd5Block(plain_md5.state, blocks + i);
      zu::test::PlainSha256Block(plain_sha256.hash, blocks + i);
    }
    MD5Digest(&md5, blocks, static_cast<uint32_t>(size));
    ZuSHA256_Update(&sha256, blocks, static_cast<uint32_t>(size));
    EXPECT_THAT(md5.state, testing::ElementsAreArray(plain_md5.state));
    EXPECT_THAT(sha256.hash, testing::ElementsAreArray(plain_sha256.hash));
  }
}

TEST(Md5Test, CountsBitsAcrossTheLowWord) {
  ZuMD5Context context;
  MD5Open(&context);
  context.count[0] = UINT64_MAX - 511;  // The buffer is empty.
  MD5Digest(&context, MessageOf(65).data(), 65);
  EXPECT_EQ(context.count[0], 8u);
  EXPECT_EQ(context.count[1], 1u);
  // No data at all, however long: only the arithmetic of the high word.
  MD5Digest(&context, nullptr, 0);
  EXPECT_EQ(context.count[0], 8u);
}

// The length field has 32 bits: 512 MiB more is the same.
TEST(Sha256Test, LengthsWrap) {
  Bytes digests[2];
  for (Bytes& digest : digests) {
    ZuSHA256Context context;
    ZuSHA256_Init(&context);
    ZuSHA256_Update(&context, MessageOf(100).data(), 100);
    EXPECT_EQ(context.total_length, 64u);
    EXPECT_EQ(context.pending_length, 36u);
    if (&digest != digests) context.total_length += 1u << 29;
    digest.resize(ZU_SHA256_SIZE);
    ZuSHA256_Final(&context, digest.data());
  }
  EXPECT_EQ(digests[0], digests[1]);
}

TEST(Sha256Test, TextIsUpperCase) {
  const Bytes message = MessageOf(1000);
  ZuSHA256Context* const context = Zu_SHA256_Start();
  Zu_SHA256_Update(context, message.data(), 999);
  Zu_SHA256_Update(context, message.data() + 999, 1);
  char text[ZU_SHA256_TEXT_SIZE + 1];
  std::memset(text, '#', sizeof text);
  Zu_SHA256_Finish(context, text);
  std::string expected = Hex(Sha256(message));
  std::transform(expected.begin(), expected.end(), expected.begin(),
                 [](unsigned char c) { return std::toupper(c); });
  EXPECT_STREQ(text, expected.c_str());
  EXPECT_EQ(text[ZU_SHA256_TEXT_SIZE], '#');
  EXPECT_EQ(sha256_k[0], 0x428a2f98u);
  EXPECT_EQ(sha256_k[63], 0xc67178f2u);
}

}  // namespace
