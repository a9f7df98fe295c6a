// The digests and the hashes of files, through the exported names: vectors of
// an independent model, every way to split a message, what is left in the
// contexts, and files beside the same bytes in memory.

#include <openssl/sha.h>
#include <array>
#include <cstring>
#include <fstream>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "ZuHelper.h"
#include "support/hex.h"
#include "tests/support/fake_tool.h"
#include "tests/support/process_state.h"
#include "tests/support/test_root.h"

namespace zu::test {
namespace {

// The message that the model makes for a length.
std::string MessageOf(uint32_t length) {
  std::string message(length, ' ');
  uint32_t state = length;
  for (char& byte : message) {
    state = state * 1103515245 + 12345;
    byte = static_cast<char>(state >> 24);
  }
  return message;
}

std::string Hex(std::span<const uint8_t> bytes) {
  std::string text(2 * bytes.size(), ' ');
  WriteUpperHex(std::as_bytes(bytes), text.data());
  return text;
}

using Pieces = std::array<std::string_view, 3>;

// What the contexts hold before must not matter: `count` and the like are set
// by the opening calls, the rest is covered by the message or the padding.
std::string Md5(const Pieces& message) {
  ZuMD5Context context;
  std::memset(&context, 0xA5, sizeof context);
  MD5Open(&context);
  for (const auto& piece : message) {
    MD5Digest(&context, piece.data(), static_cast<uint32_t>(piece.size()));
  }
  uint8_t digest[ZU_MD5_OUTPUT_SIZE];
  MD5Close(&context, digest);
  const ZuMD5Context wiped{};
  EXPECT_EQ(std::memcmp(&context, &wiped, sizeof context), 0);
  return Hex(digest);
}

// By the calls that make bytes and by those that make text. The length field
// has 32 bits, so 512 MiB more are the same.
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
  context.total_length += 1u << 29;
  uint8_t digest[ZU_SHA256_SIZE];
  ZuSHA256_Final(&context, digest);
  std::string text(ZU_SHA256_TEXT_SIZE + 1, '#');
  Zu_SHA256_Finish(text_context, text.data());
  EXPECT_EQ(text, Hex(digest) + '\0' + '#');
  return Hex(digest);
}

TEST(DigestTest, AgreesWithTheModelHoweverSplit) {
  std::ifstream file(ZU_TEST_DATA "/digest_vectors.txt");
  ASSERT_TRUE(file.is_open());
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("#")) continue;
    std::istringstream fields(line);
    std::string name, expected;
    uint32_t length = 0;
    ASSERT_TRUE(fields >> name >> length >> expected) << line;
    const auto digest = name == "md5" ? &Md5 : &Sha256;
    const std::string bytes = MessageOf(length);
    const std::string_view message = bytes;
    const uint32_t last = length < 130 ? length : 0;  // A few blocks are all.
    for (uint32_t i = 0; i <= last; ++i) {
      for (uint32_t j = i; j <= last; ++j) {
        const std::string made =
            digest({message.substr(0, i), message.substr(i, j - i),
                    message.substr(j)});
        ASSERT_STRCASEEQ(made.c_str(), expected.c_str())
            << name << " of " << length << " bytes: " << i << ' ' << j;
      }
    }
  }
}

constexpr char kFile[] = "/tmp/file";
// Large enough for two threads, and not whole in any unit.
constexpr uint32_t kLarge = (3u << 20) + 5;

// Both texts with their NULs, and one character that is nobody's.
constexpr size_t kTexts = ZU_MD5_TEXT_SIZE + ZU_SHA1_TEXT_SIZE + 1;

std::string HashesOf(std::string_view message) {
  uint8_t sha1[SHA_DIGEST_LENGTH];
  ::SHA1(reinterpret_cast<const uint8_t*>(message.data()), message.size(),
         sha1);
  const std::string md5 = Md5({message}).substr(0, 2 * ZU_MD5_SIZE);
  return md5 + '\0' + Hex(sha1) + '\0' + '#';
}

std::string HashFile(const char* path) {
  std::string texts(kTexts, '#');
  EXPECT_EQ(GetMd5AndSha1(path, &texts[0], &texts[ZU_MD5_TEXT_SIZE]), 1);
  return texts;
}

using FileHashesTest = RootedTest;

TEST_F(FileHashesTest, HashesEverySize) {
  constexpr uint32_t kBuffer = 65536;
  for (const uint32_t size : {0u, 1u, kBuffer, kBuffer + 1, 4 * kBuffer,
                              4 * kBuffer + 1, 5 * kBuffer, kLarge}) {
    const std::string message = MessageOf(size);
    WriteFile(kFile, message);
    EXPECT_EQ(HashFile(kFile), HashesOf(message)) << size;
  }
}

TEST_F(FileHashesTest, WritesNothingUnlessItSucceeds) {
  WriteFile(kFile, "abc");
  for (const auto hash : {&GetMd5AndSha1, &ZuGetMd5AndSha1HashesOSX}) {
    std::string texts(kTexts, '#');
    char* const md5 = &texts[0];
    char* const sha1 = &texts[ZU_MD5_TEXT_SIZE];
    EXPECT_EQ(hash("/tmp/none", md5, sha1), 0);
    EXPECT_EQ(hash(nullptr, md5, sha1), 0);
    EXPECT_EQ(hash(kFile, md5, nullptr), 0);
    EXPECT_EQ(hash(kFile, nullptr, sha1), 0);
    EXPECT_EQ(hash(nullptr, nullptr, nullptr), hash == &GetMd5AndSha1 ? 0 : 1);
    EXPECT_EQ(texts, std::string(kTexts, '#'));
    // What cannot be read at once is an empty message.
    EXPECT_EQ(hash("/tmp", md5, sha1), 1);
    EXPECT_EQ(texts, HashesOf(""));
  }
}

TEST_F(FileHashesTest, RunsOnManyThreadsAndKeepsNothing) {
  const std::string message = MessageOf(kLarge);
  WriteFile(kFile, message);
  const std::string expected = HashesOf(message);
  HashFile(kFile);  // What is made once is there from here on.
  const size_t descriptors = CountDescriptors();
  std::vector<std::jthread> callers;
  for (int i = 0; i < 8; ++i) {
    callers.emplace_back([&] {
      for (int j = 0; j < 3; ++j) EXPECT_EQ(HashFile(kFile), expected);
    });
  }
  callers.clear();
  EXPECT_EQ(CountDescriptors(), descriptors);
}

}  // namespace
}  // namespace zu::test
