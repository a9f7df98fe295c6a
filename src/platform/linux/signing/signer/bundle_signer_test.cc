#include "platform/linux/signing/signer/bundle_signer.h"

#include <gtest/gtest.h>
#include <map>

#include "platform/linux/signing/bundle/resource_seal.h"
#include "platform/linux/signing/file_content.h"
#include "platform/linux/signing/signer/macho_signer.h"
#include "tests/support/macho_builder.h"
#include "tests/support/test_authority.h"
#include "tests/support/test_tree.h"

namespace zu::platform {
namespace {

class BundleSignerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* line :
         {"A.app/Contents/Info.plist=<dict><key>CFBundleExecutable</key>"
          "<string>Run</string><key>CFBundleIdentifier</key><string>com.x.a"
          "</string></dict>",
          "A.app/Contents/Resources/a & b.txt=hello\n",
          "A.app/Contents/Resources/en.lproj/x=hello\n",
          "A.app/Contents/Resources/link>a & b.txt",
          "A.app/Contents/MacOS/Run=", "A.app/Contents/MacOS/tool=",
          "A.app/Contents/Frameworks/F.framework/Versions/A/F=",
          "A.app/Contents/Frameworks/F.framework/Versions/Current>A"}) {
      tree_.Put(line);
    }
    test::WriteBytes(app_ + "/Contents/MacOS/Run", test::BuildMachO());
    test::WriteBytes(
        tool_, test::BuildUniversal({test::BuildMachO(),
                                     test::BuildMachO({.code_size = 9000})}));
    test::WriteBytes(framework_ + "/Versions/A/F",
                     test::BuildMachO({.dynamic_library = true}));
  }

  std::string SignIt(const std::string& path, MachOSignOptions options = {}) {
    std::string error;
    return SignBundle(path, options, error) == SignResult::kSigned ? "" : error;
  }

  const test::TestTree tree_;
  const std::string app_ = tree_.Path("A.app");
  const std::string tool_ = app_ + "/Contents/MacOS/tool";
  const std::string framework_ = app_ + "/Contents/Frameworks/F.framework";
  const std::shared_ptr<const CryptoContext> context_ = CryptoContext::Create();
};

TEST_F(BundleSignerTest, SealsWhatTheVerifierAsksFor) {
  EXPECT_NE(SignIt(app_).find("not signed"), std::string::npos);
  const test::Credential credential = test::TestAuthority().Issue();
  std::string error;
  const auto identity =
      SigningIdentity::FromPem(credential.key, credential.certificates, error);
  ASSERT_TRUE(identity) << error;
  ASSERT_EQ(SignMachO(tool_, {.identifier = "tool"}, error),
            SignResult::kSigned)
      << error;
  ASSERT_EQ(SignIt(framework_, {.identifier = "q\"d", .identity = &*identity}),
            "");
  ASSERT_EQ(SignIt(app_), "");
  EXPECT_NE(SignIt(app_), "");  // Signed already.
  ASSERT_EQ(SignIt(app_, {.replace = true}), "");

  const auto seal = ResourceSeal::Parse(
      ReadRegularFile(app_ + "/Contents/_CodeSignature/CodeResources", 1 << 20)
          .value_or(std::vector<std::byte>()));
  ASSERT_TRUE(seal);
  std::map<std::string, std::string> nested;
  const auto verify = [&] {
    uint64_t budget = 1 << 20;
    std::vector<ResourceSeal::NestedCode> code;
    const int32_t status =
        seal->VerifyResources(*context_, *FindBundle(app_), budget, code);
    for (const auto& each : code) nested[each.path] = each.requirement;
    return status;
  };
  EXPECT_EQ(verify(), 0);
  // Any slice of ad-hoc code; whatever the same signer made of the other.
  EXPECT_NE(nested[tool_].find(" or cdhash H"), std::string::npos);
  EXPECT_EQ(nested[framework_].find("identifier \"q\\\"d\" and certificate leaf"
                                    " = H\""),
            0u);
  tree_.Put("-A.app/Contents/Resources/en.lproj/x");
  EXPECT_EQ(verify(), 0);
  tree_.Put("A.app/Contents/Resources/a & b.txt=hullo\n");
  EXPECT_EQ(verify(), -67054);
}

}  // namespace
}  // namespace zu::platform
