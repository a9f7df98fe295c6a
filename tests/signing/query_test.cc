// What the queries write where.
#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstring>

#include "ZuHelper.h"
#include "build_values.h"
#include "tests/signing/signed_file.h"
#include "tests/support/test_root.h"

namespace zu::test {
namespace {

constexpr char kOld = 'x';  // What buffers hold before.

// Everything that the compound queries write, and room behind it.
struct Answer {
  explicit Answer(decltype(&ZuAuthenticodeGetInfo) query, const char* path,
                  int32_t check_revocation = 0, bool wants_thumbprint = true) {
    std::memset(copy, kOld, sizeof(copy));
    std::memset(thumbprint, kOld, sizeof(thumbprint));
    std::memset(signer, kOld, sizeof(signer));
    signer[sizeof(signer) - 1] = '\0';
    result = query(path, check_revocation, &is_signed, &is_valid, issuer, copy,
                   signer, date, wants_thumbprint ? thumbprint : nullptr);
  }

  uint32_t result = 0;
  uint64_t is_signed = ~uint64_t{0};
  uint32_t is_valid = ~uint32_t{0};
  char issuer[ZU_SIGNER_NAME_SIZE] = "x";
  char copy[ZU_SIGNER_NAME_SIZE];
  char signer[ZU_SIGNER_NAME_SIZE];
  char date[ZU_SIGNER_NAME_SIZE] = "x";
  char thumbprint[ZU_THUMBPRINT_TEXT_SIZE + 1];
};

std::string ThumbprintText(const Credential& credential) {
  const std::string der = ToDer(credential.certificates);
  unsigned char digest[SHA_DIGEST_LENGTH];
  ::SHA1(reinterpret_cast<const unsigned char*>(der.data()), der.size(),
         digest);
  std::string text;
  for (const unsigned char byte : digest) {
    char digits[3];
    std::snprintf(digits, sizeof(digits), "%02X", byte);
    text += digits;
  }
  return text;
}

class QueryTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (IsSkipped()) return;
    vendor_.WriteAnchors(ZU_ANCHORS_DIRECTORY);
    credential_ = vendor_.Issue();
    stranger_ = MakeSelfSigned();
  }

  TestAuthority vendor_;
  Credential credential_;
  Credential stranger_;
};

TEST_F(QueryTest, TellsEverythingAtOnce) {
  const std::string name = kDeveloperIdName;
  for (const auto query :
       {&ZuAuthenticodeGetInfo, &ZuAuthenticodeGetModelBundleInfo}) {
    const SignedFile file(Format::kMachO);
    {
      const Answer nothing(query, "/tmp/nothing");
      EXPECT_EQ(nothing.result, 1u);
      EXPECT_EQ(nothing.is_signed, 0u);
      EXPECT_EQ(nothing.is_valid, 0u);
      EXPECT_STREQ(nothing.issuer, "x");
      EXPECT_EQ(nothing.thumbprint[0], kOld);
      EXPECT_EQ(std::memcmp(nothing.copy, nothing.signer, 4095), 0);
    }
    {
      const Answer unsigned_file(query, file.path());
      EXPECT_EQ(unsigned_file.result, 1u);
      EXPECT_EQ(unsigned_file.is_signed, 0u);
      EXPECT_STREQ(unsigned_file.signer, "");
      EXPECT_STREQ(unsigned_file.date, "");
      EXPECT_EQ(unsigned_file.copy[0], kOld);
      EXPECT_EQ(unsigned_file.thumbprint[0], kOld);
    }
    file.Sign(&credential_);
    const Answer good(query, file.path(), 1);
    EXPECT_EQ(good.result, 1u);
    EXPECT_EQ(good.is_signed, 1u);
    EXPECT_EQ(good.is_valid, 1u);
    EXPECT_EQ(good.signer, name);
    EXPECT_STREQ(good.issuer, "Test Authority");
    EXPECT_EQ(std::string(good.copy, name.size() + 1), name + kOld);
    EXPECT_EQ(good.thumbprint, ThumbprintText(credential_) + std::string());
    EXPECT_EQ(good.thumbprint[40], '\0');
    EXPECT_EQ(good.thumbprint[ZU_THUMBPRINT_TEXT_SIZE], kOld);

    std::vector<std::byte> bytes = ReadBytes(file.code());
    bytes[5000] ^= std::byte{1};
    WriteBytes(file.code(), bytes);
    const Answer damaged(query, file.path(), 0, false);
    EXPECT_EQ(damaged.is_signed, 1u);
    EXPECT_EQ(damaged.is_valid, 0u);
    EXPECT_EQ(damaged.signer, name);
    EXPECT_EQ(damaged.thumbprint[0], kOld);

    const SignedFile other(Format::kScript, "/tmp/other");
    other.Sign(&stranger_);
    // Only the low byte asks for the anchor that is not there.
    EXPECT_EQ(Answer(query, other.path(), 0x100).is_valid, 1u);
    EXPECT_EQ(Answer(query, other.path(), 0x101).is_valid, 0u);
    uint64_t is_signed = 7;
    uint32_t is_valid = 7;
    EXPECT_EQ(query(other.path(), 0, nullptr, &is_valid, nullptr, nullptr,
                    nullptr, nullptr, nullptr),
              0u);
    EXPECT_EQ(query(other.path(), 0, &is_signed, nullptr, nullptr, nullptr,
                    nullptr, nullptr, nullptr),
              0u);
    EXPECT_EQ(is_signed + is_valid, 14u);
    EXPECT_EQ(query(other.path(), 0, &is_signed, &is_valid, nullptr, nullptr,
                    nullptr, nullptr, nullptr),
              1u);
    EXPECT_EQ(is_signed + is_valid, 2u);
  }
}

TEST_F(QueryTest, KeepsToCapacities) {
  const SignedFile file(Format::kBundle);
  file.Sign(&stranger_);
  const auto length = static_cast<uint32_t>(std::strlen(kDeveloperIdName));
  for (const uint32_t capacity : {0u, 1u, length, length + 1, length + 9}) {
    SCOPED_TRACE(capacity);
    const bool fits = capacity > length;
    std::string issuer(length + 10, kOld), signer(length + 10, kOld);
    char date[16] = "x";
    EXPECT_EQ(
        GetSignatureStatusForPath(file.path(), 0, issuer.data(), capacity,
                                  signer.data(), capacity, date, sizeof(date)),
        ZU_SIGNATURE_VALID);
    EXPECT_STREQ(date, "");
    if (capacity != 0) {
      EXPECT_STREQ(signer.c_str(), fits ? kDeveloperIdName : "");
      // The only certificate is its own issuer's; the copy is padded.
      EXPECT_EQ(issuer.substr(capacity),
                std::string(length + 10 - capacity, kOld));
      EXPECT_EQ(issuer.substr(0, capacity),
                (fits ? std::string(kDeveloperIdName) : std::string()) +
                    std::string(capacity - (fits ? length : 0), '\0'));
    }
    EXPECT_EQ(signer.substr(capacity),
              std::string(length + 10 - capacity, kOld));
  }
  // The name alone fills the issuer's buffer: no terminator.
  char signer[256], issuer[8] = {};
  GetSignatureStatusForPath(file.path(), 0, issuer, 7, signer, sizeof(signer),
                            nullptr, 0);
  EXPECT_EQ(std::string(issuer, 8), std::string(kDeveloperIdName, 7) + '\0');

  uint8_t digest[21] = {};
  for (const uint16_t capacity : {uint16_t{0}, uint16_t{19}, uint16_t{21}}) {
    EXPECT_EQ(ZuGetSecThumbprint(file.path(), digest, capacity), 0u);
  }
  EXPECT_EQ(ZuGetSecThumbprint(file.path(), nullptr, 20), 0u);
  EXPECT_EQ(ZuGetSecThumbprint(nullptr, digest, 20), 0u);
  EXPECT_EQ(std::count(std::begin(digest), std::end(digest), 0), 21);
  EXPECT_EQ(ZuGetSecThumbprint(file.path(), digest, 20), 1u);
  EXPECT_NE(std::count(std::begin(digest), std::end(digest), 0), 21);
  EXPECT_EQ(ZuAuthenticodeValidateBundle(file.path()), 1u);
}

TEST_F(QueryTest, KnowsWhereThereIsNoCode) {
  std::filesystem::create_directories("/tmp/directory");
  for (const char* path : {static_cast<const char*>(nullptr), "", "/tmp/none",
                           "/tmp/directory", "/tmp/\xff"}) {
    char signer[8] = "x";
    EXPECT_EQ(
        GetSignatureStatusForPath(path, 0, nullptr, 0, signer, 8, nullptr, 0),
        ZU_SIGNATURE_NONE);
    EXPECT_STREQ(signer, "x");
    EXPECT_EQ(GetBundleSignatureStatus(path), ZU_SIGNATURE_NONE);
    EXPECT_EQ(ZuAuthenticodeValidateBundle(path), 0u);
    EXPECT_EQ(ZuCodeCreateWithPath(path), nullptr);
  }
  // Opening a device could do things to it, and a pipe would wait.
  ASSERT_EQ(::mkfifo("/tmp/fifo", 0600), 0);
  for (const char* path : {"/dev/null", "/tmp/fifo"}) {
    EXPECT_EQ(GetBundleSignatureStatus(path), ZU_SIGNATURE_NONE);
    EXPECT_EQ(ZuCodeCreateWithPath(path), nullptr);
  }
}

TEST_F(QueryTest, OfProcesses) {
  std::filesystem::copy_file("/bin/sleep", "/tmp/sleeper");
  SignExecutable("/tmp/sleeper", credential_);
  const char* arguments[] = {"sleeper", "600", nullptr};
  pid_t pid = 0;
  ASSERT_EQ(::posix_spawn(&pid, "/tmp/sleeper", nullptr, nullptr,
                          const_cast<char**>(arguments), environ),
            0);
  const auto status = [](pid_t process, char(&signer)[128]) {
    std::strcpy(signer, "x");
    return GetSignatureStatusForPID(process, 1, nullptr, 0, signer, 128,
                                    nullptr, 0);
  };
  char signer[128];
  EXPECT_EQ(status(pid, signer), ZU_SIGNATURE_VALID);
  EXPECT_STREQ(signer, kDeveloperIdName);
  uint8_t by_pid[20] = {}, by_path[20] = {};
  EXPECT_EQ(GetSecThumbprintForPID(pid, by_pid, 20), 1u);
  EXPECT_EQ(GetSecThumbprint("/tmp/sleeper", by_path, 20), 1u);
  EXPECT_EQ(std::memcmp(by_pid, by_path, 20), 0);
  EXPECT_EQ(Util_clientIsSignedByZubrant(pid), 1u);
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  EXPECT_EQ(status(pid, signer), ZU_SIGNATURE_NONE);
  EXPECT_STREQ(signer, "x");
  EXPECT_EQ(status(::getpid(), signer), ZU_SIGNATURE_NONE);
  EXPECT_STREQ(signer, "");
  EXPECT_EQ(GetSecThumbprintForPID(::getpid(), by_pid, 20), 0u);
}

TEST_F(QueryTest, HandsOutCodeAndCertificates) {
  const SignedFile file(Format::kUniversal);
  file.Sign(&credential_);
  const ZuCodeRef code = ZuCodeCreateWithPath(file.path());
  ASSERT_NE(code, nullptr);
  const ZuCertificatesRef certificates = ZuCodeCopyCertificates(code);
  ASSERT_NE(certificates, nullptr);
  EXPECT_EQ(ValidateCerts(certificates), 1u);
  char signer[128] = "x";
  EXPECT_EQ(GetSignatureStatus(code, 1, nullptr, 0, signer, sizeof(signer),
                               nullptr, 0),
            ZU_SIGNATURE_VALID);
  EXPECT_STREQ(signer, kDeveloperIdName);
  std::filesystem::remove_all(ZU_ANCHORS_DIRECTORY);
  EXPECT_EQ(ValidateCerts(certificates), 0u);
  ZuCertificatesRelease(certificates);

  EXPECT_EQ(GetSignatureStatus(nullptr, 0, nullptr, 0, signer, sizeof(signer),
                               nullptr, 0),
            ZU_SIGNATURE_NONE);
  EXPECT_STREQ(signer, "");
  EXPECT_EQ(ValidateCerts(nullptr), 0u);
  const ZuCodeRef process = ZuCodeCreateWithPID(::getpid());
  EXPECT_NE(process, nullptr);
  EXPECT_EQ(ZuCodeCopyCertificates(process), nullptr);
  ZuCodeRelease(process);
  ZuCodeRelease(nullptr);
  ZuCertificatesRelease(nullptr);
}

}  // namespace
}  // namespace zu::test
