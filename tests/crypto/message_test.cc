// The message cipher and the extraction of archives, through the exported
// names.

#include <openssl/err.h>
#include <algorithm>
#include <filesystem>
#include <limits>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace {

std::string Unhex(const std::string& digits) {
  std::string bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

// Key and vector of NIST SP 800-38A, F.2.5.
const std::string kKey = Unhex(
    "603deb1015ca71be2b73aef0857d7781"
    "1f352c073b6108d72d9810a30914dff4");
const std::string kIv = Unhex("000102030405060708090a0b0c0d0e0f");

enum class Place { kApart, kSame };
constexpr uint8_t kEncrypt = 0x80;  // As is all but 0.
constexpr uint8_t kDecrypt = 0;

using Outcome = std::pair<int32_t, std::string>;

// With exactly that capacity: nothing may be written behind it.
Outcome Crypt(uint8_t encrypt, const std::string& input, uint64_t capacity,
              Place place = Place::kApart) {
  std::string buffer(std::max<size_t>(input.size(), capacity) + 32, '\xa5');
  if (place == Place::kSame) buffer.replace(0, input.size(), input);
  const std::string guard = buffer.substr(capacity);
  uint64_t length = capacity;
  const int32_t status = Zu_CCCrypt_Message(
      place == Place::kSame ? buffer.data() : input.data(), input.size(),
      kKey.data(), kKey.size(), kIv.data(), buffer.data(), &length, encrypt);
  EXPECT_EQ(buffer.substr(capacity), guard);
  EXPECT_LE(length, capacity);
  return {status, buffer.substr(0, length)};
}

TEST(MessageCipherTest, AgreesWithTheStandard) {
  const std::string message = Unhex(
      "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
      "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
  const std::string ciphertext = Unhex(
      "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
      "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"
      "3f461796d6b0d6b2e0c2a72b4d80e644");  // Padding, from `openssl enc`.
  EXPECT_EQ(Crypt(kEncrypt, message, 80),
            Outcome(ZU_CRYPT_SUCCESS, ciphertext));
}

TEST(MessageCipherTest, GivesBackWhatItTook) {
  for (size_t length = 1; length <= 65; ++length) {
    const std::string message(length, static_cast<char>(length));
    const size_t padded = length / 16 * 16 + 16;
    for (const Place place : {Place::kApart, Place::kSame}) {
      const Outcome made = Crypt(kEncrypt, message, padded, place);
      ASSERT_EQ(made.first, ZU_CRYPT_SUCCESS) << length;
      ASSERT_EQ(Crypt(kDecrypt, made.second, padded, place),
                Outcome(ZU_CRYPT_SUCCESS, message));
    }
  }
}

TEST(MessageCipherTest, RefusesBeforeItWrites) {
  constexpr uint64_t kMost = std::numeric_limits<uint64_t>::max();
  constexpr int32_t kTooSmall = ZU_CRYPT_BUFFER_TOO_SMALL;
  constexpr int32_t kUnaligned = ZU_CRYPT_ALIGNMENT_ERROR;
  static char buffer[48];
  static uint64_t length;
  const struct {
    const void *input = kKey.data(), *key = kKey.data(), *iv = kIv.data();
    void* output = buffer;
    uint64_t* output_length = &length;
    uint64_t input_length = 32, key_length = 32;
    uint8_t encrypt = kEncrypt;
    int32_t status = ZU_CRYPT_PARAMETER_ERROR;
    uint64_t wanted = 48;  // The length, afterwards.
  } cases[] = {
      {.input = nullptr},
      {.key = nullptr},
      {.iv = nullptr},
      {.output = nullptr},
      {.output_length = nullptr},
      {.input_length = 0},
      {.key_length = 16},
      {.key_length = 33},
      {.key_length = (1ull << 32) + 32},
      {.input_length = kMost - 15},  // 0 when rounded up.
      {.input_length = kMost - 16, .status = kTooSmall, .wanted = kMost - 15},
      {.input_length = 48, .status = kTooSmall, .wanted = 64},
      {.input_length = 49, .encrypt = 0, .status = kTooSmall, .wanted = 49},
      {.input_length = 47, .encrypt = 0, .status = kUnaligned, .wanted = 0},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(&row - cases);
    std::ranges::fill(buffer, '\xa5');
    length = 48;
    EXPECT_EQ(
        Zu_CCCrypt_Message(row.input, row.input_length, row.key, row.key_length,
                           row.iv, row.output, row.output_length, row.encrypt),
        row.status);
    EXPECT_EQ(length, row.wanted);
    EXPECT_THAT(buffer, ::testing::Each('\xa5'));
  }
}

TEST(MessageCipherTest, RefusesPaddingThatIsNone) {
  // A block of ciphertext is added to the plaintext of the one behind it, whose
  // last two bytes, being padding, are 2.
  const std::string ciphertext =
      Crypt(kEncrypt, std::string(30, 'x'), 32).second;
  // Padding of 0 bytes, of more than a block, and of 3, 2.
  for (const auto& [at, change] : {std::pair(15, 2), {15, 0x13}, {14, 1}}) {
    std::string damaged = ciphertext;
    damaged[static_cast<size_t>(at)] ^= static_cast<char>(change);
    for (const Place place : {Place::kApart, Place::kSame}) {
      EXPECT_EQ(Crypt(kDecrypt, damaged, 32, place),
                Outcome(ZU_CRYPT_DECODE_ERROR, ""));
      EXPECT_EQ(::ERR_peek_error(), 0u);  // The host's own list of errors.
    }
  }
}

using ArchiveTest = zu::test::RootedTest;

constexpr char kSudo[] = "/usr/bin/sudo";

TEST_F(ArchiveTest, RunsTarInTheArchivesFolder) {
  const zu::test::RecordingTool sudo(kSudo, "");
  for (const char* path :
       {static_cast<const char*>(nullptr), "", "\xff", "/a/b.tbz", "a.tbz", "/",
        "/a b/$c.tbz///", "//a//\u00E9//c.tbz"}) {
    const bool refused = path == nullptr || *path == '\0' || *path == '\xff';
    EXPECT_EQ(ZuDecompress(path), refused ? 0 : 1);
  }
  EXPECT_EQ(sudo.CommandLines(),
            "|/usr/bin/tar|-C|/a|-jxf|/a/b.tbz\n"
            "|/usr/bin/tar|-C||-jxf|a.tbz\n"
            "|/usr/bin/tar|-C|/|-jxf|/\n"
            "|/usr/bin/tar|-C|/a b|-jxf|/a b/$c.tbz///\n"
            "|/usr/bin/tar|-C|/a/\u00E9|-jxf|//a//\u00E9//c.tbz\n");
}

TEST_F(ArchiveTest, JudgesByWhatIsPrinted) {
  std::filesystem::remove(kSudo);
  EXPECT_EQ(ZuDecompress("/a.tbz"), 1);  // Cannot be started.
  for (const auto& [script, result] :
       {std::pair("echo", 0), std::pair("exit 1", 1)}) {
    const zu::test::FakeTool sudo(kSudo, script);
    EXPECT_EQ(ZuDecompress("/a.tbz"), result) << script;
  }
}

}  // namespace
