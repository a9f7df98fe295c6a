#include "platform/linux/signing/verifier.h"

#include <gtest/gtest.h>
#include <openssl/cms.h>
#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <filesystem>
#include <thread>

#include "platform/code_signing.h"
#include "platform/linux/signing/appended/appended_signature.h"
#include "platform/linux/signing/signer/macho_signer.h"
#include "platform/linux/signing/status.h"
#include "tests/support/macho_builder.h"
#include "tests/support/test_authority.h"
#include "tests/support/test_tree.h"

namespace zu::platform {
namespace {

using test::Credential;
using test::TestAuthority;
using Bytes = std::vector<std::byte>;

const std::string kContent =
    "\x7f"
    "ELF and whatever else is in a program";

FileDescriptor MakeFile(std::span<const std::byte> bytes) {
  FileDescriptor file(::memfd_create("verifier_test", MFD_CLOEXEC));
  EXPECT_EQ(::pwrite(file.get(), bytes.data(), bytes.size(), 0),
            static_cast<ssize_t>(bytes.size()));
  return file;
}

class VerifierTest : public ::testing::Test {
 protected:
  VerifierTest() {
    authority_.WriteAnchors(tree_.root());
    verifier_ = Verifier::Create(tree_.root());
  }

  // Whatever comes out, the host's error queue is as it was.
  Verification Verify(const Bytes& file, const VerifyOptions& options = {}) {
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 1);
    Verification result =
        verifier_->Verify(StaticCode(MakeFile(file)), options);
    EXPECT_EQ(ERR_GET_LIB(ERR_get_error()), ERR_LIB_USER);
    EXPECT_EQ(ERR_get_error(), 0u);
    return result;
  }

  static Bytes SignElf(const Credential& credential) {
    const test::TestTree tree;
    const std::string path = tree.Path("tool");
    test::WriteBytes(path, std::as_bytes(std::span(kContent)));
    test::SignExecutable(path, credential);
    return test::ReadBytes(path);
  }
  Bytes SignImage(const MachOSignOptions& options,
                  const Bytes& image = test::BuildMachO()) const {
    const test::TestTree tree;
    const std::string path = tree.Path("image");
    test::WriteBytes(path, image);
    std::string error;
    EXPECT_EQ(SignMachO(path, options, error), SignResult::kSigned) << error;
    return test::ReadBytes(path);
  }
  Bytes SignImage(const Credential& credential) const {
    const SigningIdentity identity = test::ToIdentity(credential);
    return SignImage({.identifier = "com.example.tool",
                      .identity = &identity,
                      .hashes = {CodeHash::kSha1, CodeHash::kSha256}});
  }

  const test::TestTree tree_;
  TestAuthority authority_;
  std::shared_ptr<Verifier> verifier_;
};

// Formats of our own take no weak algorithms; the platform's old files do.
TEST_F(VerifierTest, ToleratesThePastOnlyWhereThereIsOne) {
  const Credential weak = authority_.Issue({.rsa_bits = 1024});
  EXPECT_EQ(Verify(SignElf(weak)).status, kCertificateNotTrusted);
  EXPECT_EQ(Verify(SignImage(weak)).status, kCodeSigningSuccess);
}

// Every bit that is signed counts. What is not (a version, or what pads the
// message) may change, but cannot change what the signature says.
TEST_F(VerifierTest, DetectsEveryChangedByte) {
  const Credential credential = authority_.Issue();
  for (Bytes file : {SignElf(credential), SignImage(credential)}) {
    const SignatureFacts facts = Verify(file).facts;
    const size_t code = std::min(
        file.size() / 2,
        kContent.size() + (file[0] != std::byte{0x7f} ? file.size() / 8 : 0));
    for (size_t i = 0; i < file.size(); i += 5) {
      file[i] ^= std::byte{1};
      const Verification result = Verify(file);
      file[i] ^= std::byte{1};
      if (result.status != kCodeSigningSuccess) continue;
      ASSERT_GE(i, code);
      ASSERT_EQ(result.facts.identifier, facts.identifier);
      ASSERT_EQ(result.facts.cdhashes, facts.cdhashes);
      ASSERT_FALSE(result.facts.certificates.empty());
      ASSERT_EQ(result.facts.certificates[0].sha256,
                facts.certificates[0].sha256);
    }
    EXPECT_EQ(Verify(file).status, kCodeSigningSuccess);
  }
  const VerifyOptions options{.max_content_size = kContent.size() - 1};
  EXPECT_EQ(Verify(SignElf(credential), options).status,
            kCodeSigningNotVerifiable);
}

// Ad-hoc code is known by its digest, which must not be had by carrying a
// genuine directory beside one's own.
TEST_F(VerifierTest, TakesNoForeignDigestFromAdHocCode) {
  const auto sign = [&](const char* information, std::vector<CodeHash> hashes) {
    return SignImage({.hashes = std::move(hashes)},
                     test::BuildMachO({.info_dictionary = information}));
  };
  const Bytes good = sign("good", {CodeHash::kSha256});
  Bytes evil = sign("evil", {CodeHash::kSha256, CodeHash::kSha384});
  // Magic number, and a length that is the same in both.
  const auto directory = [](auto& file) {
    constexpr std::byte kMagic[] = {std::byte{0xfa}, std::byte{0xde},
                                    std::byte{0x0c}, std::byte{0x02}};
    return std::search(file.begin(), file.end(), std::begin(kMagic),
                       std::end(kMagic));
  };
  const auto source = directory(good);
  const size_t size = std::to_integer<size_t>(source[6]) << 8 |
                      std::to_integer<size_t>(source[7]);
  ASSERT_EQ(directory(evil)[7], source[7]);
  std::copy_n(source, size, directory(evil));
  const Verification result = Verify(evil);
  EXPECT_EQ(result.status, kCodeSigningSuccess) << result.reason;
  ASSERT_EQ(result.facts.cdhashes.size(), 1u);
  EXPECT_NE(result.facts.cdhashes, Verify(good).facts.cdhashes);
}

TEST_F(VerifierTest, ServesManyThreads) {
  const StaticCode code(MakeFile(SignImage(authority_.Issue())));
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 25; ++round) {
        EXPECT_EQ(verifier_->Verify(code, {}).status, kCodeSigningSuccess);
      }
    });
  }
  // Makes them read the anchors anew, all of which are good.
  for (int i = 0; i < 25; ++i) {
    std::filesystem::copy_file(tree_.Path("authority.pem"),
                               tree_.Path(std::to_string(i)));
  }
  for (std::thread& thread : threads) thread.join();
}

// Messages of libcrypto's, which itself would accept them all.
TEST_F(VerifierTest, TakesNoWeakMessages) {
  const SigningIdentity identity = test::ToIdentity(authority_.Issue());
  constexpr int32_t kUnsupported = kCodeSigningSignatureUnsupported;
  for (const auto& [digest, without_attributes, status] :
       {std::tuple(EVP_sha256(), 0u, 0),
        {EVP_sha1(), 0, kUnsupported},
        {EVP_sha256(), CMS_NOATTR, kUnsupported}}) {
    const unsigned flags = CMS_BINARY | CMS_DETACHED | without_attributes;
    const CmsPtr message(
        CMS_sign(nullptr, nullptr, nullptr, nullptr, flags | CMS_PARTIAL));
    CMS_add1_signer(message.get(), identity.leaf.get(), identity.key.get(),
                    digest, flags);
    const BioPtr content(
        BIO_new_mem_buf(kContent.data(), static_cast<int>(kContent.size())));
    ASSERT_EQ(CMS_final(message.get(), content.get(), nullptr, flags), 1);
    uint8_t* der = nullptr;
    const int size = i2d_CMS_ContentInfo(message.get(), &der);
    const auto trailer = EncodeSignatureTrailer(static_cast<uint32_t>(size));
    const auto all = std::as_bytes(std::span(kContent));
    Bytes file(all.begin(), all.end());
    const auto* const signature = reinterpret_cast<std::byte*>(der);
    file.insert(file.end(), signature, signature + size);
    file.insert(file.end(), trailer.begin(), trailer.end());
    OPENSSL_free(der);
    EXPECT_EQ(Verify(file).status, status) << EVP_MD_name(digest);
  }
}

}  // namespace
}  // namespace zu::platform
