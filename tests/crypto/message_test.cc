// The message cipher, through the exported name.

#include <openssl/err.h>
#include <algorithm>
#include <limits>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ZuHelper.h"

namespace {

// Key, vector and first block of NIST SP 800-38A, F.2.5.
constexpr char kKey[] =
    "\x60\x3d\xeb\x10\x15\xca\x71\xbe\x2b\x73\xae\xf0\x85\x7d\x77\x81"
    "\x1f\x35\x2c\x07\x3b\x61\x08\xd7\x2d\x98\x10\xa3\x09\x14\xdf\xf4";
constexpr char kIv[] = "\0\1\2\3\4\5\6\7\x8\x9\xa\xb\xc\xd\xe\xf";
constexpr char kPlain[] =
    "\x6b\xc1\xbe\xe2\x2e\x40\x9f\x96\xe9\x3d\x7e\x11\x73\x93\x17\x2a";
// The second one is padding, from `openssl enc`.
constexpr char kCiphertext[] =
    "\xf5\x8c\x4c\x04\xd6\xe5\xf1\xba\x77\x9e\xab\xfb\x5f\x7b\xfb\xd6"
    "\x48\x5a\x5c\x81\x51\x9c\xf3\x78\xfa\x36\xd4\x2b\x85\x47\xed\xc0";

constexpr uint8_t kEncrypt = 0x80;  // As is all but 0.
constexpr uint8_t kDecrypt = 0;

using Outcome = std::pair<int32_t, std::string>;

// Apart and in place, with exactly that capacity: nothing may be written behind
// it.
Outcome Crypt(uint8_t encrypt, const std::string& input, uint64_t capacity) {
  Outcome outcomes[2];
  for (const bool in_place : {false, true}) {
    std::string buffer = in_place ? input : "";
    buffer.resize(std::max<size_t>(input.size(), capacity) + 32, '\xa5');
    const std::string guard = buffer.substr(capacity);
    uint64_t length = capacity;
    const int32_t status = Zu_CCCrypt_Message(
        in_place ? buffer.data() : input.data(), input.size(), kKey, 32, kIv,
        buffer.data(), &length, encrypt);
    EXPECT_EQ(buffer.substr(capacity), guard);
    EXPECT_LE(length, capacity);
    outcomes[in_place] = {status, buffer.substr(0, length)};
  }
  EXPECT_EQ(outcomes[0], outcomes[1]);
  return outcomes[0];
}

TEST(MessageCipherTest, AgreesWithTheStandardAndGivesBackWhatItTook) {
  EXPECT_EQ(Crypt(kEncrypt, kPlain, 32),
            Outcome(ZU_CRYPT_SUCCESS, kCiphertext));
  for (size_t length = 1; length <= 65; ++length) {
    const std::string message(length, static_cast<char>(length));
    const size_t padded = length / 16 * 16 + 16;
    const Outcome made = Crypt(kEncrypt, message, padded);
    ASSERT_EQ(made.first, ZU_CRYPT_SUCCESS) << length;
    ASSERT_EQ(Crypt(kDecrypt, made.second, padded),
              Outcome(ZU_CRYPT_SUCCESS, message));
  }
}

TEST(MessageCipherTest, RefusesBeforeItWrites) {
  constexpr uint64_t kMost = std::numeric_limits<uint64_t>::max();
  constexpr int32_t kTooSmall = ZU_CRYPT_BUFFER_TOO_SMALL;
  constexpr int32_t kUnaligned = ZU_CRYPT_ALIGNMENT_ERROR;
  static char buffer[48];
  static uint64_t length;
  const struct {
    const void* input = kKey;
    uint64_t* output_length = &length;
    uint64_t input_length = 32, key_length = 32;
    uint8_t encrypt = kEncrypt;
    int32_t status = ZU_CRYPT_PARAMETER_ERROR;
    uint64_t wanted = 48;  // The length, afterwards.
  } cases[] = {
      {.input = nullptr},
      {.output_length = nullptr},
      {.input_length = 0},
      {.key_length = 16},
      {.input_length = kMost - 15},  // 0 when rounded up.
      {.input_length = kMost - 16, .status = kTooSmall, .wanted = kMost - 15},
      {.input_length = 49, .encrypt = 0, .status = kTooSmall, .wanted = 49},
      {.input_length = 47, .encrypt = 0, .status = kUnaligned, .wanted = 0},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(&row - cases);
    std::ranges::fill(buffer, '\xa5');
    length = 48;
    EXPECT_EQ(
        Zu_CCCrypt_Message(row.input, row.input_length, kKey, row.key_length,
                           kIv, buffer, row.output_length, row.encrypt),
        row.status);
    EXPECT_EQ(length, row.wanted);
    EXPECT_THAT(buffer, ::testing::Each('\xa5'));
  }
}

TEST(MessageCipherTest, RefusesPaddingThatIsNone) {
  std::string damaged = Crypt(kEncrypt, std::string(31, 'x'), 32).second;
  // A block of ciphertext is added to the plaintext of the one behind it, whose
  // last byte, being padding, was 1: more than a block.
  damaged[15] ^= 0x10;
  EXPECT_EQ(Crypt(kDecrypt, damaged, 32), Outcome(ZU_CRYPT_DECODE_ERROR, ""));
  EXPECT_EQ(::ERR_peek_error(), 0u);  // The host's own list of errors.
}

}  // namespace
