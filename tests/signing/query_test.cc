// What the queries write where.
#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstring>

#include "ZuHelper.h"
#include "build_values.h"
#include "tests/signing/signed_file.h"
#include "tests/support/paused_child.h"

namespace zu::test {
namespace {

constexpr char kOld = 'x';  // What buffers hold before.

// Everything that the compound queries write, and room behind it.
struct Answer {
  Answer(decltype(&ZuAuthenticodeGetInfo) query, const char* path,
         int32_t check_revocation = 0) {
    result = query(path, check_revocation, &is_signed, &is_valid, issuer,
                   copy.data(), signer, date, thumbprint.data());
  }

  uint32_t result = 0;
  uint64_t is_signed = ~uint64_t{0};
  uint32_t is_valid = ~uint32_t{0};
  std::string copy = std::string(ZU_SIGNER_NAME_SIZE, kOld);
  std::string thumbprint = std::string(ZU_THUMBPRINT_TEXT_SIZE + 1, kOld);
  char issuer[ZU_SIGNER_NAME_SIZE] = "x";
  char signer[ZU_SIGNER_NAME_SIZE] = "x";
  char date[ZU_SIGNER_NAME_SIZE] = "x";
};

class QueryTest : public SignedFileTest {
 protected:
  const Credential credential_ = vendor_.Issue();
  const Credential stranger_ = MakeSelfSigned();
};

TEST_F(QueryTest, TellsEverythingAtOnce) {
  for (const auto query :
       {&ZuAuthenticodeGetInfo, &ZuAuthenticodeGetModelBundleInfo}) {
    const SignedFile file(Format::kMachO);
    const Answer nothing(query, "/tmp/nothing");
    EXPECT_EQ(nothing.result, 1u);
    EXPECT_EQ(nothing.is_signed + nothing.is_valid, 0u);
    EXPECT_EQ(nothing.signer[0], kOld);
    const Answer unsigned_file(query, file.path());
    EXPECT_EQ(unsigned_file.is_signed, 0u);
    EXPECT_STREQ(unsigned_file.signer, "");

    file.Sign(&credential_);
    const Answer good(query, file.path(), 1);
    const std::string name = kDeveloperIdName;
    EXPECT_EQ(good.is_signed, 1u);
    EXPECT_EQ(good.is_valid, 1u);
    EXPECT_STREQ(good.issuer, "Test Authority");
    EXPECT_EQ(good.copy.substr(0, name.size() + 1), name + kOld);
    EXPECT_EQ(good.thumbprint.find_first_not_of("0123456789ABCDEF"), 40u);
    EXPECT_EQ(good.thumbprint.back(), kOld);

    const SignedFile other(Format::kScript, "/tmp/other");
    other.Sign(&stranger_);
    // Only the low byte asks for the anchor that is not there.
    EXPECT_EQ(Answer(query, other.path(), 0x100).is_valid, 1u);
    EXPECT_EQ(Answer(query, other.path(), 0x101).is_valid, 0u);
    uint64_t is_signed = 7;
    EXPECT_EQ(query(other.path(), 0, &is_signed, nullptr, nullptr, nullptr,
                    nullptr, nullptr, nullptr),
              0u);
    EXPECT_EQ(is_signed, 7u);
  }
}

TEST_F(QueryTest, KeepsToCapacities) {
  const SignedFile file(Format::kBundle);
  file.Sign(&stranger_);
  const std::string name = kDeveloperIdName;
  for (const size_t capacity : {size_t{1}, name.size(), name.size() + 9}) {
    SCOPED_TRACE(capacity);
    const std::string text = capacity > name.size() ? name : "";
    std::string issuer(name.size() + 10, kOld), signer = issuer;
    const std::string behind = signer.substr(capacity);
    const auto size = static_cast<uint32_t>(capacity);
    EXPECT_EQ(GetSignatureStatusForPath(file.path(), 0, issuer.data(), size,
                                        signer.data(), size, nullptr, 0),
              ZU_SIGNATURE_VALID);
    EXPECT_EQ(signer.c_str(), text);
    EXPECT_EQ(signer.substr(capacity), behind);
    // The only certificate is its own issuer's; the copy is padded.
    EXPECT_EQ(issuer,
              text + std::string(capacity - text.size(), '\0') + behind);
  }
  // The name alone fills the issuer's buffer: no terminator.
  char signer[256], issuer[8] = {};
  GetSignatureStatusForPath(file.path(), 0, issuer, 7, signer, sizeof(signer),
                            nullptr, 0);
  EXPECT_EQ(std::string(issuer, 8), name.substr(0, 7) + '\0');

  uint8_t digest[21] = {}, expected[21] = {};
  for (const uint16_t capacity : {uint16_t{19}, uint16_t{21}}) {
    EXPECT_EQ(ZuGetSecThumbprint(file.path(), digest, capacity), 0u);
  }
  EXPECT_EQ(std::memcmp(digest, expected, 21), 0);
  EXPECT_EQ(ZuGetSecThumbprint(file.path(), digest, 20), 1u);
  const std::string der = ToDer(stranger_.certificates);
  ::SHA1(reinterpret_cast<const unsigned char*>(der.data()), der.size(),
         expected);
  EXPECT_EQ(std::memcmp(digest, expected, 21), 0);
}

TEST_F(QueryTest, KnowsWhereThereIsNoCode) {
  // Opening a device could do things to it, and a pipe would wait.
  ASSERT_EQ(::mkfifo("/tmp/fifo", 0600), 0);
  for (const char* path : {static_cast<const char*>(nullptr), "/tmp/none",
                           "/tmp", "/tmp/\xff", "/dev/null", "/tmp/fifo"}) {
    EXPECT_EQ(GetBundleSignatureStatus(path), ZU_SIGNATURE_NONE);
    EXPECT_EQ(ZuCodeCreateWithPath(path), nullptr);
  }
}

TEST_F(QueryTest, OfProcesses) {
  std::filesystem::copy_file("/bin/sleep", "/tmp/sleeper");
  SignExecutable("/tmp/sleeper", credential_);
  PausedChild child([] { ::execl("/tmp/sleeper", "sleeper", "600", nullptr); });
  const pid_t pid = child.pid();
  const auto status = [](pid_t process) {
    return GetSignatureStatusForPID(process, 1, nullptr, 0, nullptr, 0, nullptr,
                                    0);
  };
  EXPECT_EQ(status(pid), ZU_SIGNATURE_VALID);
  uint8_t by_pid[20] = {}, by_path[20] = {};
  EXPECT_EQ(GetSecThumbprintForPID(pid, by_pid, 20), 1u);
  EXPECT_EQ(GetSecThumbprint("/tmp/sleeper", by_path, 20), 1u);
  EXPECT_EQ(std::memcmp(by_pid, by_path, 20), 0);
  child.End();
  EXPECT_EQ(status(pid), ZU_SIGNATURE_NONE);
  EXPECT_EQ(status(::getpid()), ZU_SIGNATURE_NONE);
}

TEST_F(QueryTest, HandsOutCodeAndCertificates) {
  const SignedFile file(Format::kUniversal);
  file.Sign(&credential_);
  const ZuCodeRef code = ZuCodeCreateWithPath(file.path());
  ASSERT_NE(code, nullptr);
  const ZuCertificatesRef certificates = ZuCodeCopyCertificates(code);
  ASSERT_NE(certificates, nullptr);
  EXPECT_EQ(ValidateCerts(certificates), 1u);
  EXPECT_EQ(GetSignatureStatus(code, 1, nullptr, 0, nullptr, 0, nullptr, 0),
            ZU_SIGNATURE_VALID);
  std::filesystem::remove_all(ZU_ANCHORS_DIRECTORY);
  EXPECT_EQ(ValidateCerts(certificates), 0u);
  ZuCertificatesRelease(certificates);
  EXPECT_EQ(ValidateCerts(nullptr), 0u);
  const ZuCodeRef process = ZuCodeCreateWithPID(::getpid());
  EXPECT_EQ(ZuCodeCopyCertificates(process), nullptr);
  ZuCodeRelease(process);
}

}  // namespace
}  // namespace zu::test
