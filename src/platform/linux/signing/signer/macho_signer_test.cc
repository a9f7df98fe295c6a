#include "platform/linux/signing/signer/macho_signer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <filesystem>
#include <memory>

#include "platform/linux/signing/cms/signed_message.h"
#include "platform/linux/signing/file_content.h"
#include "platform/linux/signing/macho/macho_image.h"
#include "support/file_descriptor.h"
#include "tests/support/macho_builder.h"
#include "tests/support/test_authority.h"
#include "tests/support/test_tree.h"

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

  const test::TestTree tree_;
  const std::string path_ = tree_.Path("program");
  std::string error_;
  const std::shared_ptr<const CryptoContext> context_ = CryptoContext::Create();
  FileDescriptor file_;
  std::vector<MachOSlice> slices_;
  std::vector<EmbeddedSignature> signatures_;
};

TEST_F(MachOSignerTest, SignsEveryKindOfFile) {
  const Bytes intel32 = BuildMachO({.cpu_type = kCpuTypeX86});
  const Bytes intel = BuildMachO();
  const Bytes arm =
      BuildMachO({.cpu_type = kCpuTypeArm64, .dynamic_library = true});
  const Bytes swapped = BuildMachO({.cpu_type = 18, .order = ByteOrder::kBig});
  using H = CodeHash;
  const struct {
    const char* name;
    Bytes file;
    std::vector<CodeHash> hashes;
  } cases[] = {
      {"swapped", swapped, {H::kSha1, H::kSha256}},
      {"universal",
       test::BuildUniversal({intel32, intel, arm}),
       {H::kSha1, H::kSha256, H::kSha384, H::kSha256Truncated}},
      {"universal, 64-bit",
       test::BuildUniversal({arm, intel}, true),
       {H::kSha1, H::kSha384}},
  };
  std::string error;
  const test::Credential credential = test::TestAuthority().Issue();
  const auto identity =
      SigningIdentity::FromPem(credential.key, credential.certificates, error);
  ASSERT_TRUE(identity) << error;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::WriteBytes(path_, c.file);
    ASSERT_EQ(Sign({.identity = &*identity,
                    .hashes = c.hashes,
                    .entitlements = ToBytes("<dict/>"),
                    .der_entitlements = ToBytes("0")}),
              SignResult::kSigned)
        << error_;
    ASSERT_NO_FATAL_FAILURE(ReadSigned());
    for (size_t i = 0; i < slices_.size(); ++i) {
      const auto& directories = signatures_[i].directories;
      const auto& cms = signatures_[i].cms;
      SignedMessage message;
      ASSERT_EQ(message.Parse(context_, Bytes(cms.begin(), cms.end())),
                SignedMessage::ParseResult::kOk);
      EXPECT_TRUE(message.VerifyAttributes());
      EXPECT_TRUE(message.VerifyContent(
          HashOf(*context_, CodeHash::kSha256, directories[0].bytes)));
      EXPECT_TRUE(message.directory_digest_list());
      ASSERT_EQ(message.directory_digests().size(), c.hashes.size());
      ASSERT_EQ(directories.size(), c.hashes.size());
    }
  }
}

TEST_F(MachOSignerTest, SignsAnewOnlyWhenAsked) {
  test::WriteBytes(path_, BuildMachO());
  ASSERT_EQ(Sign({.identifier = "first"}), SignResult::kSigned) << error_;
  const Bytes once = test::ReadBytes(path_);
  EXPECT_EQ(Sign({.identifier = "other"}), SignResult::kRefused);
  ASSERT_EQ(Sign({.identifier = "second, longer", .replace = true}),
            SignResult::kSigned)
      << error_;
  ASSERT_NO_FATAL_FAILURE(ReadSigned());
  // Nothing is left of what was there in between.
  ASSERT_EQ(Sign({.identifier = "first", .replace = true}),
            SignResult::kSigned);
  EXPECT_EQ(test::ReadBytes(path_), once);
}

TEST_F(MachOSignerTest, RefusesWhatItCannotSign) {
  for (const Bytes& file : {BuildMachO({.room = 15}), ToBytes("#!/bin/sh\n"),
                            ToBytes("\xcf\xfa\xed\xfe")}) {
    test::WriteBytes(path_, file);
    EXPECT_EQ(Sign({}), SignResult::kRefused);
    EXPECT_EQ(test::ReadBytes(path_), file);
  }
  std::filesystem::remove(path_);
  EXPECT_EQ(Sign({}), SignResult::kFailed);
}

}  // namespace
}  // namespace zu::platform
