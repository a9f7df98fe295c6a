// Signatures that others made: run by `scripts/check --real`, which fetches the
// packages and names their directory in ZU_REAL_FILES.
#include <gtest/gtest.h>
#include <cstdlib>
#include <filesystem>

#include "ZuHelper.h"
#include "platform/linux/signing/verifier.h"

namespace zu::test {
namespace {

namespace fs = std::filesystem;

struct RealFile {
  const char* path;  // Below the directory.
  uint32_t whole;    // As a bundle, for the native architecture.
  uint32_t plain;    // The code of all architectures.
  const char* signer = "";
  const char* thumbprint = "";
  std::optional<int64_t> timestamp = std::nullopt;
};

const RealFile kFiles[] = {
    {"sqlite-vec-darwin-arm64/vec0.dylib", 2, 0},
#if defined(__x86_64__)
    {"fsevents/fsevents.node", 0, 0},  // Only its other half is signed.
#else
    {"fsevents/fsevents.node", 2, 0},
#endif
    {"node-notifier/vendor/terminal-notifier.app", 2, 2,
     "Developer ID Application: Fingertips B.V.",
     "5DD1D615DF7456F156D58D0F13157E2B18840923",
     1344633954},  // 2012-08-10 21:25:54
    {"msal-node-runtime/dist/macos/x64/msal-node-runtime.node", 2, 2,
     "3rd Party Mac Developer Application: Microsoft Corporation "
     "(UBF8T346G9)",
     "5E0CE2E70834B56E9E2D750F9FCE0CCDEF695C15",
     1792748966},  // 2026-10-23 09:49:26
};

TEST(RealFilesTest, AreJudgedAsThePlatformDoes) {
  const char* const directory = std::getenv("ZU_REAL_FILES");
  if (directory == nullptr) GTEST_SKIP() << "ZU_REAL_FILES is not set";
  for (const RealFile& file : kFiles) {
    const std::string path = std::string(directory) + "/" + file.path;
    SCOPED_TRACE(path);
    ASSERT_TRUE(fs::exists(path));

    EXPECT_EQ(GetBundleSignatureStatus(path.c_str()), file.whole);
    uint64_t is_signed = 9;
    uint32_t is_valid = 9;
    char signer[ZU_SIGNER_NAME_SIZE] = "?";
    char thumbprint[ZU_THUMBPRINT_TEXT_SIZE] = "";
    EXPECT_EQ(
        ZuAuthenticodeGetInfo(path.c_str(), 0, &is_signed, &is_valid, nullptr,
                              nullptr, signer, nullptr, thumbprint),
        1u);
    EXPECT_EQ(is_signed, file.plain == 0 ? 0u : 1u);
    EXPECT_EQ(is_valid, file.plain == 2 ? 1u : 0u);
    EXPECT_STREQ(signer, file.signer);
    EXPECT_STREQ(thumbprint, file.thumbprint);

    const auto verifier = platform::Verifier::Create("/nonexistent");
    const auto code = platform::StaticCode::Open(path);
    ASSERT_TRUE(verifier && code);
    EXPECT_EQ(verifier->Inspect(*code).timestamp, file.timestamp);
  }
}

}  // namespace
}  // namespace zu::test
