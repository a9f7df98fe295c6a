// The message cipher and the extraction of archives, through the exported
// names.

#include <dlfcn.h>
#include <sys/mman.h>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <string>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "support/file_descriptor.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace {

using ::testing::ElementsAre;

std::string Unhex(std::string_view digits) {
  std::string bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(
        std::stoi(std::string(digits.substr(i, 2)), nullptr, 16));
  }
  return bytes;
}

// Key and vector of NIST SP 800-38A, F.2.5.
const std::string kKey = Unhex(
    "603deb1015ca71be2b73aef0857d7781"
    "1f352c073b6108d72d9810a30914dff4");
const std::string kIv = Unhex("000102030405060708090a0b0c0d0e0f");

enum class Place { kApart, kSame };
constexpr uint8_t kEncrypt = 1;
constexpr uint8_t kDecrypt = 0;

struct Outcome {
  int32_t status;
  std::string output;
};

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

TEST(MessageCipherTest, AgreesWithOthers) {
  const struct {
    std::string message, ciphertext;
  } cases[] = {
      // SP 800-38A; the block of padding behind it comes from `openssl enc`.
      {Unhex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af"
             "8e5130c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417b"
             "e66c3710"),
       Unhex("f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc670"
             "2c7d39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c1907"
             "8c6a9d1b3f461796d6b0d6b2e0c2a72b4d80e644")},
      {"Thirteen long", Unhex("8e4fba1604e14c351377d2c532ccd9cd")},
  };
  for (const auto& [message, ciphertext] : cases) {
    for (const uint8_t flag : {kEncrypt, uint8_t{0x80}}) {
      const Outcome made = Crypt(flag, message, ciphertext.size());
      EXPECT_EQ(made.status, ZU_CRYPT_SUCCESS);
      EXPECT_EQ(made.output, ciphertext);
    }
  }
}

TEST(MessageCipherTest, GivesBackWhatItTook) {
  for (size_t length = 1; length <= 65; ++length) {
    const std::string message(length, static_cast<char>(length));
    const size_t padded = length / 16 * 16 + 16;
    for (const Place place : {Place::kApart, Place::kSame}) {
      const Outcome made = Crypt(kEncrypt, message, padded, place);
      ASSERT_EQ(made.status, ZU_CRYPT_SUCCESS) << length;
      ASSERT_EQ(made.output.size(), padded);
      const Outcome back = Crypt(kDecrypt, made.output, padded, place);
      ASSERT_EQ(back.status, ZU_CRYPT_SUCCESS) << length;
      ASSERT_EQ(back.output, message);
    }
  }
}

TEST(MessageCipherTest, RefusesBeforeItWrites) {
  struct Call {
    const void* input = kKey.data();
    uint64_t input_length = 32;
    const void* key = kKey.data();
    uint64_t key_length = 32;
    const void* iv = kIv.data();
    void* output;
    uint64_t* output_length;
    uint8_t encrypt = kEncrypt;
  };
  constexpr int32_t kTooSmall = ZU_CRYPT_BUFFER_TOO_SMALL;
  constexpr uint64_t kCapacity = 48;
  constexpr uint64_t kMost = std::numeric_limits<uint64_t>::max();
  const struct {
    void (*change)(Call&);
    int32_t status = ZU_CRYPT_PARAMETER_ERROR;
    uint64_t length = kCapacity;  // Afterwards.
  } cases[] = {
      {[](Call& c) { c.input = nullptr; }},
      {[](Call& c) { c.key = nullptr; }},
      {[](Call& c) { c.iv = nullptr; }},
      {[](Call& c) { c.output = nullptr; }},
      {[](Call& c) { c.output_length = nullptr; }},
      {[](Call& c) { c.input_length = 0; }},
      {[](Call& c) { c.key_length = 16; }},
      {[](Call& c) { c.key_length = 24; }},
      {[](Call& c) { c.key_length = 33; }},
      {[](Call& c) { c.key_length = (1ull << 32) + 32; }},
      {[](Call& c) { c.input_length = kMost - 15; }},  // 0 when rounded up.
      {[](Call& c) { c.input_length = kMost; }},
      {[](Call& c) { c.input_length = 48; }, kTooSmall, 64},
      {[](Call& c) { *c.output_length = 15, c.input_length = 1; }, kTooSmall,
       16},
      {[](Call& c) { c.input_length = kMost - 16; }, kTooSmall, kMost - 15},
      {[](Call& c) { *c.output_length = 31, c.encrypt = 0; }, kTooSmall, 32},
      {[](Call& c) { c.input_length = 49, c.encrypt = 0; }, kTooSmall, 49},
      {[](Call& c) { c.input_length = 47, c.encrypt = 0; },
       ZU_CRYPT_ALIGNMENT_ERROR, 0},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(&row - cases);
    const std::string untouched(kCapacity, '\xa5');
    std::string output = untouched;
    uint64_t length = kCapacity;
    Call call{.output = output.data(), .output_length = &length};
    row.change(call);
    EXPECT_EQ(Zu_CCCrypt_Message(call.input, call.input_length, call.key,
                                 call.key_length, call.iv, call.output,
                                 call.output_length, call.encrypt),
              row.status);
    EXPECT_EQ(length, row.length);
    EXPECT_EQ(output, untouched);
  }
}

TEST(MessageCipherTest, RefusesPaddingThatIsNone) {
  // A block of ciphertext is added to the plaintext of the one behind it, whose
  // last two bytes, being padding, are 2.
  const std::string ciphertext =
      Crypt(kEncrypt, std::string(30, 'x'), 32).output;
  const struct {
    size_t at;
    char change;
  } damages[] = {
      {15, 2},     // Padding of 0 bytes.
      {15, 0x13},  // More than a block of it.
      {14, 1},     // 3, 2.
      {31, 1},     // The block as a whole.
  };
  const auto peek_error = reinterpret_cast<unsigned long (*)()>(
      ::dlsym(RTLD_DEFAULT, "ERR_peek_error"));
  ASSERT_NE(peek_error, nullptr);
  for (const auto& [at, change] : damages) {
    std::string damaged = ciphertext;
    damaged[at] = static_cast<char>(damaged[at] ^ change);
    for (const Place place : {Place::kApart, Place::kSame}) {
      const Outcome outcome = Crypt(kDecrypt, damaged, 32, place);
      EXPECT_EQ(outcome.status, ZU_CRYPT_DECODE_ERROR) << at << ", " << +change;
      EXPECT_EQ(outcome.output, "");
      // The host's own list of errors.
      EXPECT_EQ(peek_error(), 0u);
    }
  }
}

// Zeros; what is not written to takes no memory.
char* MapZeros(size_t size) {
  void* const bytes =
      ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  EXPECT_NE(bytes, MAP_FAILED);
  return static_cast<char*>(bytes);
}

TEST(MessageCipherTest, TakesMoreThanAnIntCounts) {
  constexpr size_t kBlocks = size_t{1} << 31;
  constexpr size_t kPadded = kBlocks + 16;
  char* const input = MapZeros(kPadded);
  // The same memory again and again, which is room enough for so much output.
  char* const output = MapZeros(kPadded);
  constexpr size_t kPeriod = 2 << 20;
  const zu::FileDescriptor file(::memfd_create("output", MFD_CLOEXEC));
  ASSERT_EQ(::ftruncate(file.get(), kPeriod), 0);
  for (size_t at = 0; at < kPadded; at += kPeriod) {
    ASSERT_NE(
        ::mmap(output + at, std::min(kPeriod, kPadded - at),
               PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file.get(), 0),
        MAP_FAILED);
  }
  uint64_t produced = kPadded;
  EXPECT_EQ(Zu_CCCrypt_Message(input, kBlocks + 5, kKey.data(), kKey.size(),
                               kIv.data(), output, &produced, kEncrypt),
            ZU_CRYPT_SUCCESS);
  EXPECT_EQ(produced, kPadded);
  // From `openssl enc`; it depends on all blocks before.
  EXPECT_EQ(std::string(output + kBlocks, 16),
            Unhex("9380a272777da247593cdea8a47379bd"));
  ::munmap(input, kPadded);
  ::munmap(output, kPadded);
}

constexpr char kSudo[] = "/usr/bin/sudo";

class ArchiveTest : public zu::test::RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (!IsSkipped()) std::filesystem::remove(kSudo);
  }
};

TEST_F(ArchiveTest, RunsTarInTheArchivesFolder) {
  const zu::test::RecordingTool sudo(kSudo, "");
  for (const char* refused : {static_cast<const char*>(nullptr), "", "\xff"}) {
    EXPECT_EQ(ZuDecompress(refused), 0);
  }
  const struct {
    const char *path, *folder;
  } cases[] = {
      {"/a/b.tbz", "/a"},
      {"a.tbz", ""},
      {"/a", "/"},
      {"/", "/"},
      {"a/", ""},
      {"/a b/$c.tbz///", "/a b"},
      {"//a//\xc3\xa9//c.tbz", "/a/\xc3\xa9"},
  };
  size_t calls = 0;
  for (const auto& [path, folder] : cases) {
    EXPECT_EQ(ZuDecompress(path), 1);
    const auto made = sudo.Calls();
    ASSERT_EQ(made.size(), ++calls);
    EXPECT_THAT(made.back().arguments,
                ElementsAre("/usr/bin/tar", "-C", folder, "-jxf", path));
  }
}

TEST_F(ArchiveTest, JudgesByWhatIsPrinted) {
  EXPECT_EQ(ZuDecompress("/a.tbz"), 1);  // Cannot be started.
  const struct {
    const char* script;
    uint8_t result;
  } cases[] = {{"echo", 0}, {"exit 1", 1}};
  for (const auto& [script, result] : cases) {
    const zu::test::FakeTool sudo(kSudo, script);
    EXPECT_EQ(ZuDecompress("/a.tbz"), result) << script;
  }
}

TEST_F(ArchiveTest, UnpacksBesideTheArchive) {
  const zu::test::FakeTool sudo(kSudo, "exec \"$@\"");
  zu::test::WriteFile("/tmp/from/folder/file", "content");
  std::filesystem::create_directory("/tmp/to");
  ASSERT_EQ(std::system("tar -C /tmp/from -cjf /tmp/to/a.tbz folder"), 0);
  EXPECT_EQ(ZuDecompress("/tmp/to/a.tbz"), 1);
  EXPECT_EQ(zu::test::ReadFile("/tmp/to/folder/file"), "content");
}

}  // namespace
