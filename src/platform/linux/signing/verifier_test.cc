#include "platform/linux/signing/verifier.h"

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "platform/code_signing.h"
#include "platform/linux/signing/elf/elf_signature.h"
#include "platform/linux/signing/signer/signer.h"
#include "platform/linux/signing/status.h"
#include "support/file_descriptor.h"
#include "tests/support/test_authority.h"

namespace zu::platform {
namespace {

using test::Credential;
using test::IssueBelow;
using test::LeafOptions;
using test::MakeSelfSigned;
using test::TestAuthority;

using Bytes = std::vector<std::byte>;

Bytes ToBytes(std::string_view text) {
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

FileDescriptor MakeFile(std::span<const std::byte> bytes) {
  FileDescriptor file(::memfd_create("verifier_test", MFD_CLOEXEC));
  EXPECT_EQ(::pwrite(file.get(), bytes.data(), bytes.size(), 0),
            static_cast<ssize_t>(bytes.size()));
  return file;
}

const std::string kContent =
    "\x7f"
    "ELF and whatever else is in a program";

SigningIdentity Identity(const Credential& credential) {
  std::string error;
  auto identity =
      SigningIdentity::FromPem(credential.key, credential.certificates, error);
  EXPECT_TRUE(identity) << error;
  return *std::move(identity);
}

// A file with a signature of the caller's behind the content.
Bytes WithSignature(std::span<const std::byte> signature) {
  Bytes file = ToBytes(kContent);
  file.insert(file.end(), signature.begin(), signature.end());
  const auto trailer =
      EncodeSignatureTrailer(static_cast<uint32_t>(signature.size()));
  file.insert(file.end(), trailer.begin(), trailer.end());
  return file;
}

Bytes SignContent(const Credential& credential) {
  std::string error;
  const auto signature =
      CreateSignature(Identity(credential), MakeFile(ToBytes(kContent)).get(),
                      kContent.size(), "com.example.tool", error);
  EXPECT_TRUE(signature) << error;
  return *signature;
}

class VerifierTest : public ::testing::Test {
 protected:
  VerifierTest() {
    char pattern[] = "/tmp/zu_verifier.XXXXXX";
    directory_ = ::mkdtemp(pattern);
    authority_.WriteAnchors(directory_);
    verifier_ = Verifier::Create(directory_);
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  // Whatever comes out, the host's error queue is as it was.
  Verification Verify(const Bytes& file, const VerifyOptions& options = {}) {
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 1);
    Verification result = verifier_->Verify(MakeFile(file).get(), options);
    EXPECT_EQ(ERR_GET_LIB(ERR_get_error()), ERR_LIB_USER);
    EXPECT_EQ(ERR_get_error(), 0u);
    return result;
  }

  std::string directory_;
  TestAuthority authority_;
  TestAuthority subordinate_{"Subordinate", &authority_};
  std::shared_ptr<Verifier> verifier_;
};

TEST_F(VerifierTest, TellsWhatWasSigned) {
  const Verification result =
      Verify(WithSignature(SignContent(subordinate_.Issue())));
  EXPECT_EQ(result.status, kCodeSigningSuccess) << result.reason;
  EXPECT_EQ(result.facts.identifier, "com.example.tool");
  EXPECT_TRUE(result.facts.anchor_trusted);
  std::vector<std::string> names;
  for (const CertificateFacts& certificate : result.facts.certificates) {
    names.push_back(certificate.subject[0].value_or("none"));
  }
  EXPECT_THAT(names, ::testing::ElementsAre(test::kDeveloperIdName,
                                            "Subordinate", "Test Authority"));
}

TEST_F(VerifierTest, JudgesCertificates) {
  const TestAuthority stranger;
  const TestAuthority for_servers("Servers", &authority_, "serverAuth");
  const TestAuthority for_code("Code", &authority_, "codeSigning,serverAuth");
  Credential unchained = subordinate_.Issue();
  unchained.certificates.resize(unchained.certificates.find("-----BEGIN", 1));
  const LeafOptions expired{.valid_until_s = -60};
  const LeafOptions early{.valid_from_s = 60};
  const VerifyOptions in_time{.consider_expiration = true};
  const struct {
    const char* name;
    Credential credential;
    int32_t status;
    VerifyOptions options = {};
  } cases[] = {
      {"vendor", authority_.Issue(), 0},
      {"vendor in time", authority_.Issue(), 0, in_time},
      {"below subordinate", subordinate_.Issue(), 0},
      {"below subordinate for code", for_code.Issue(), 0},
      {"RSA", authority_.Issue({.rsa_bits = 2048}), 0},
      {"no key usage", authority_.Issue({.key_usage = ""}), 0},
      {"weak RSA", authority_.Issue({.rsa_bits = 1024}),
       kCertificateNotTrusted},
      {"other authority, same names", stranger.Issue(), kCertificateNotTrusted},
      {"self-signed", MakeSelfSigned(), kCertificateNotTrusted},
      {"issued by a leaf", IssueBelow(authority_.Issue()),
       kCertificateNotTrusted},
      {"subordinate is missing", unchained, kCertificateNotTrusted},
      {"no usage", authority_.Issue({.extended_key_usage = ""}),
       kCertificateUsageInvalid},
      {"any usage",
       authority_.Issue({.extended_key_usage = "anyExtendedKeyUsage"}),
       kCertificateUsageInvalid},
      {"other usage", authority_.Issue({.extended_key_usage = "serverAuth"}),
       kCertificateUsageInvalid},
      {"key not for signatures",
       authority_.Issue({.key_usage = "keyAgreement"}),
       kCertificateUsageInvalid},
      {"authority for other usage", for_servers.Issue(),
       kCertificateUsageInvalid},
      {"expired, tolerated", authority_.Issue(expired), 0},
      {"expired", authority_.Issue(expired), kCertificateExpired, in_time},
      {"too early", authority_.Issue(early), kCertificateExpired, in_time},
  };
  for (const auto& c : cases) {
    const Verification result =
        Verify(WithSignature(SignContent(c.credential)), c.options);
    EXPECT_EQ(result.status, c.status) << c.name << ": " << result.reason;
  }
}

// Every bit that is signed counts. What is not (a version, say) may change,
// but cannot change what the signature says.
TEST_F(VerifierTest, DetectsEveryChangedByte) {
  Bytes file = WithSignature(SignContent(authority_.Issue()));
  const SignatureFacts facts = Verify(file).facts;
  const size_t trailer = file.size() - kSignatureTrailerSize;
  size_t unnoticed = 0;
  for (size_t i = 0; i < file.size(); ++i) {
    file[i] ^= std::byte{1};
    const Verification result = Verify(file);
    file[i] ^= std::byte{1};
    if (result.status != kCodeSigningSuccess) continue;
    ASSERT_TRUE(i >= kContent.size() && i < trailer) << i;
    ++unnoticed;
    EXPECT_EQ(result.facts.identifier, facts.identifier);
    ASSERT_EQ(result.facts.certificates.size(), facts.certificates.size());
    EXPECT_EQ(result.facts.certificates[0].subject,
              facts.certificates[0].subject);
  }
  EXPECT_LT(unnoticed, 20u);
  EXPECT_EQ(Verify(file).status, kCodeSigningSuccess);
}

TEST_F(VerifierTest, TellsKindsOfDamage) {
  const Bytes signature = SignContent(authority_.Issue());
  const Bytes good = WithSignature(signature);
  Bytes longer = signature;
  longer.push_back(std::byte{0});
  const auto changed = [&](size_t position, std::byte value) {
    Bytes file = good;
    file[position] = value;
    return file;
  };
  const struct {
    const char* name;
    Bytes file;
    int32_t status;
    VerifyOptions options = {};
  } cases[] = {
      {"empty", {}, kCodeSigningUnsigned},
      {"unsigned", ToBytes(kContent), kCodeSigningUnsigned},
      {"a byte behind", Bytes(good.begin(), good.end() - 1),
       kCodeSigningUnsigned},
      {"not ELF", changed(1, std::byte{'e'}), kCodeSigningUnsigned},
      {"content", changed(10, std::byte{0}), kCodeSigningSignatureFailed},
      {"signature value",
       changed(kContent.size() + signature.size() - 1, good[kContent.size()]),
       kCodeSigningSignatureFailed},
      {"message", changed(kContent.size(), std::byte{0}),
       kCodeSigningSignatureInvalid},
      {"bytes behind the message", WithSignature(longer),
       kCodeSigningSignatureInvalid},
      {"trailer", changed(good.size() - 29, std::byte{0xff}),
       kCodeSigningSignatureInvalid},
      {"too large",
       good,
       kCodeSigningNotVerifiable,
       {.max_content_size = kContent.size() - 1}},
  };
  for (const auto& c : cases) {
    const Verification result = Verify(c.file, c.options);
    EXPECT_EQ(result.status, c.status) << c.name << ": " << result.reason;
  }
  EXPECT_EQ(verifier_->Verify(-1, {}).status, kCodeSigningNotVerifiable);
}

TEST_F(VerifierTest, ServesManyThreads) {
  const FileDescriptor file =
      MakeFile(WithSignature(SignContent(subordinate_.Issue())));
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 25; ++round) {
        EXPECT_EQ(verifier_->Verify(file.get(), {}).status,
                  kCodeSigningSuccess);
      }
    });
  }
  // Makes them read the anchors anew, all of which are good.
  for (int i = 0; i < 25; ++i) {
    std::filesystem::copy_file(directory_ + "/authority.pem",
                               directory_ + "/" + std::to_string(i));
  }
  for (std::thread& thread : threads) thread.join();
}

// Messages that libcrypto itself would accept, made with its own functions.
TEST_F(VerifierTest, RefusesOtherKindsOfMessages) {
  constexpr unsigned kFlags = CMS_BINARY | CMS_DETACHED | CMS_PARTIAL;
  const SigningIdentity identities[] = {Identity(authority_.Issue()),
                                        Identity(authority_.Issue())};
  constexpr int32_t kUnsupported = kCodeSigningSignatureUnsupported;
  const struct {
    const char* name;
    int32_t status;
    const EVP_MD* digest = EVP_sha256();
    int signers = 1;
    unsigned flags = 0;
    bool detached = true;
    int content_type = NID_pkcs7_data;
  } cases[] = {
      {"plain", 0},
      {"SHA-384", 0, EVP_sha384()},
      {"SHA-512", 0, EVP_sha512()},
      {"SHA-1", kUnsupported, EVP_sha1()},
      {"no signer", kUnsupported, EVP_sha256(), 0},
      {"two signers", kUnsupported, EVP_sha256(), 2},
      {"no attributes", kUnsupported, EVP_sha256(), 1, CMS_NOATTR},
      {"content inside", kUnsupported, EVP_sha256(), 1, 0, false},
      {"other content type", kUnsupported, EVP_sha256(), 1, 0, true,
       NID_id_smime_ct_TSTInfo},
      {"no certificate", kCodeSigningSignatureInvalid, EVP_sha256(), 1,
       CMS_NOCERTS},
  };
  for (const auto& c : cases) {
    const CmsPtr message(CMS_sign(nullptr, nullptr, nullptr, nullptr, kFlags));
    CMS_set1_eContentType(message.get(), OBJ_nid2obj(c.content_type));
    if (!c.detached) CMS_set_detached(message.get(), 0);
    for (int i = 0; i < c.signers; ++i) {
      CMS_add1_signer(message.get(), identities[i].leaf.get(),
                      identities[i].key.get(), c.digest, kFlags | c.flags);
    }
    const BioPtr content(CMS_dataInit(message.get(), nullptr));
    BIO_write(content.get(), kContent.data(),
              static_cast<int>(kContent.size()));
    ASSERT_EQ(CMS_dataFinal(message.get(), content.get()), 1) << c.name;
    Bytes der(static_cast<size_t>(i2d_CMS_ContentInfo(message.get(), nullptr)));
    auto* out = reinterpret_cast<unsigned char*>(der.data());
    i2d_CMS_ContentInfo(message.get(), &out);
    const Verification result = Verify(WithSignature(der));
    EXPECT_EQ(result.status, c.status) << c.name << ": " << result.reason;
    EXPECT_FALSE(result.facts.identifier.has_value());
  }
}

}  // namespace
}  // namespace zu::platform
