#include "platform/linux/signing/signer/macho_signer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/objects.h>
#include <filesystem>
#include <memory>

#include "platform/linux/signing/cms/signed_message.h"
#include "platform/linux/signing/file_content.h"
#include "platform/linux/signing/macho/macho_image.h"
#include "support/file_descriptor.h"
#include "tests/support/macho_builder.h"
#include "tests/support/test_authority.h"

namespace zu::platform {
namespace {

using Bytes = std::vector<std::byte>;
using test::BuildMachO;

Bytes ToBytes(std::string_view text) {
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

class MachOSignerTest : public testing::Test {
 protected:
  MachOSignerTest() {
    char pattern[] = "/tmp/zu_macho.XXXXXX";
    directory_ = ::mkdtemp(pattern);
    path_ = directory_ / "program";
  }
  ~MachOSignerTest() override { std::filesystem::remove_all(directory_); }

  SignResult Sign(const MachOSignOptions& options) {
    error_.clear();
    return SignMachO(path_, options, error_);
  }

  // Reads the file back: every slice has a signature that fits.
  void ReadSigned() {
    file_.reset(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(ReadMachO(file_.get(), slices_), MachOResult::kOk);
    signatures_.clear();
    for (const MachOSlice& slice : slices_) {
      ASSERT_TRUE(slice.signature);
      const FileRange& place = *slice.signature;
      ASSERT_EQ(place.offset + place.size, slice.range.size);
      ASSERT_EQ(place.offset % 16, 0u);
      Bytes bytes(place.size);
      ASSERT_TRUE(
          ReadAt(file_.get(), slice.range.offset + place.offset, bytes));
      ASSERT_EQ(EmbeddedSignature::Parse(bytes, signatures_.emplace_back()),
                EmbeddedSignature::ParseResult::kOk);
      for (const CodeDirectory& directory : signatures_.back().directories) {
        EXPECT_EQ(directory.code_limit, place.offset);
        EXPECT_EQ(
            VerifyPages(*context_, file_.get(), slice.range.offset, directory),
            PagesResult::kGood);
        for (const auto& [slot, blob] : signatures_.back().components) {
          EXPECT_TRUE(MatchesSlot(*context_, directory, slot, blob)) << slot;
        }
      }
    }
  }

  std::filesystem::path directory_;
  std::filesystem::path path_;
  std::string error_;
  const std::shared_ptr<const CryptoContext> context_ = CryptoContext::Create();
  FileDescriptor file_;
  std::vector<MachOSlice> slices_;
  std::vector<EmbeddedSignature> signatures_;
};

TEST_F(MachOSignerTest, SignsEveryKindOfFile) {
  const Bytes intel32 = BuildMachO({.cpu_type = kCpuTypeX86});
  const Bytes intel = BuildMachO({.info_dictionary = "<plist/>"});
  const Bytes arm =
      BuildMachO({.cpu_type = kCpuTypeArm64, .dynamic_library = true});
  const Bytes swapped = BuildMachO({.cpu_type = 18, .order = ByteOrder::kBig});
  using H = CodeHash;
  const struct {
    const char* name;
    Bytes file;
    std::vector<CodeHash> hashes;
  } cases[] = {
      {"i386", intel32, {H::kSha1}},
      {"x86_64", intel, {H::kSha256}},
      {"arm64", arm, {H::kSha256Truncated}},
      {"swapped", swapped, {H::kSha1, H::kSha256}},
      {"universal",
       test::BuildUniversal({intel32, intel, arm}),
       {H::kSha1, H::kSha256, H::kSha384, H::kSha256Truncated}},
      {"universal, 64-bit",
       test::BuildUniversal({arm, intel}, true),
       {H::kSha384}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::WriteBytes(path_, c.file);
    ASSERT_EQ(Sign({.team = "A1B2C3D4E5",
                    .hashes = c.hashes,
                    .flags = kLinkerSignedFlag,
                    .resources = ToBytes("resources"),
                    .entitlements = ToBytes("<dict/>"),
                    .der_entitlements = ToBytes("0")}),
              SignResult::kSigned)
        << error_;
    ASSERT_NO_FATAL_FAILURE(ReadSigned());
    for (size_t i = 0; i < slices_.size(); ++i) {
      ASSERT_EQ(signatures_[i].directories.size(), c.hashes.size());
      EXPECT_TRUE(signatures_[i].cms.empty());
      const bool is_arm =
          slices_[i].cpu_type == static_cast<int32_t>(kCpuTypeArm64);
      for (size_t j = 0; j < c.hashes.size(); ++j) {
        const CodeDirectory& directory = signatures_[i].directories[j];
        EXPECT_EQ(directory.hash, c.hashes[j]);
        EXPECT_EQ(directory.page_size, is_arm ? 16384u : 4096u);
        EXPECT_EQ(directory.identifier, "program");
        EXPECT_EQ(directory.team, "A1B2C3D4E5");
        EXPECT_EQ(directory.flags, kAdHocFlag | kLinkerSignedFlag);
        EXPECT_TRUE(MatchesSlot(*context_, directory, kResourcesSlot,
                                ToBytes("resources")));
        EXPECT_EQ(
            MatchesSlot(*context_, directory, kInfoSlot, ToBytes("<plist/>")),
            slices_[i].info_dictionary.has_value());
      }
    }
  }
}

TEST_F(MachOSignerTest, SignsWithAKey) {
  std::string error;
  const test::Credential credential = test::TestAuthority().Issue();
  const auto identity =
      SigningIdentity::FromPem(credential.key, credential.certificates, error);
  ASSERT_TRUE(identity) << error;
  test::WriteBytes(
      path_, test::BuildUniversal({BuildMachO(), BuildMachO({.cpu_type = 7})}));
  ASSERT_EQ(Sign({.identifier = "org.example",
                  .identity = &*identity,
                  .hashes = {CodeHash::kSha1, CodeHash::kSha256}}),
            SignResult::kSigned)
      << error_;
  ASSERT_NO_FATAL_FAILURE(ReadSigned());
  for (const EmbeddedSignature& signature : signatures_) {
    const CodeDirectory& first = signature.directories[0];
    EXPECT_EQ(first.flags, 0u);
    EXPECT_EQ(first.team, ZU_DEVELOPER_ID_TEAM);
    SignedMessage message;
    ASSERT_EQ(
        message.Parse(context_, {signature.cms.begin(), signature.cms.end()}),
        SignedMessage::ParseResult::kOk);
    EXPECT_TRUE(message.VerifyAttributes());
    EXPECT_TRUE(message.VerifyContent(
        HashOf(*context_, CodeHash::kSha256, first.bytes)));
    const auto& digests = message.directory_digests();
    ASSERT_EQ(digests.size(), 2u);
    const auto list = message.directory_digest_list();
    ASSERT_TRUE(list);
    const std::string text(reinterpret_cast<const char*>(list->data()),
                           list->size());
    size_t place = 0;
    for (size_t i = 0; i < digests.size(); ++i) {
      const CodeDirectory& directory = signature.directories[i];
      EXPECT_EQ(digests[i].nid, i == 0 ? NID_sha1 : NID_sha256);
      EXPECT_EQ(digests[i].value,
                HashOf(*context_, directory.hash, directory.bytes));
      unsigned char encoded[32];
      EVP_EncodeBlock(encoded,
                      reinterpret_cast<const unsigned char*>(
                          CdHash(*context_, directory).data()),
                      20);
      place = text.find(reinterpret_cast<const char*>(encoded), place);
      EXPECT_NE(place, text.npos);
    }
  }
}

TEST_F(MachOSignerTest, SignsAnewOnlyWhenAsked) {
  test::WriteBytes(path_, BuildMachO());
  ASSERT_EQ(Sign({.identifier = "first"}), SignResult::kSigned) << error_;
  const Bytes once = test::ReadBytes(path_);
  EXPECT_EQ(Sign({.identifier = "other"}), SignResult::kRefused);
  EXPECT_EQ(test::ReadBytes(path_), once);
  ASSERT_EQ(Sign({.identifier = "second, longer", .replace = true}),
            SignResult::kSigned)
      << error_;
  ASSERT_NO_FATAL_FAILURE(ReadSigned());
  EXPECT_EQ(signatures_[0].best().identifier, "second, longer");
  // Nothing is left of what was there in between.
  ASSERT_EQ(Sign({.identifier = "first", .replace = true}),
            SignResult::kSigned);
  EXPECT_EQ(test::ReadBytes(path_), once);
}

TEST_F(MachOSignerTest, RefusesWhatItCannotSign) {
  const struct {
    const char* name;
    Bytes file;
    const char* reason;
  } cases[] = {
      {"no room", BuildMachO({.room = 15}), "no room"},
      {"not Mach-O", ToBytes("#!/bin/sh\n"), "not a Mach-O"},
      {"cut short", ToBytes("\xcf\xfa\xed\xfe"), "Mach-O"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::WriteBytes(path_, c.file);
    EXPECT_EQ(Sign({}), SignResult::kRefused);
    EXPECT_NE(error_.find(c.reason), std::string::npos) << error_;
    EXPECT_EQ(test::ReadBytes(path_), c.file);
  }
  std::filesystem::remove(path_);
  EXPECT_EQ(Sign({}), SignResult::kFailed);
}

}  // namespace
}  // namespace zu::platform
