// The tool as people use it: what it says, how it exits, what it leaves behind.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/signing/signed_file.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_authority.h"
#include "tests/support/test_tree.h"

namespace zu {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Outcome {
  int code;
  std::string output;  // Standard output and error.
};

class ZusignTest : public ::testing::Test {
 protected:
  ZusignTest() {
    authority_.WriteAnchors(directory_ / "anchors");
    const test::Credential vendor = subordinate_.Issue();
    const size_t chain = vendor.certificates.find("-----BEGIN", 1);
    test::WriteFile(directory_ / "key", vendor.key);
    test::WriteFile(directory_ / "cert", vendor.certificates.substr(0, chain));
    test::WriteFile(directory_ / "chain", vendor.certificates.substr(chain));
    fs::copy_file("/bin/cat", directory_ / "tool");
  }

  // Runs a command line in the directory.
  Outcome Run(const std::string& command) {
    const std::string output = tree_.Path("output");
    const std::string line = "exec >" + output + " 2>&1 </dev/null; cd " +
                             directory_.string() + " && { " + command + "; }";
    const int status = std::system(line.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
            test::ReadFile(output)};
  }
  Outcome Zusign(const std::string& arguments) {
    return Run(ZU_TEST_ZUSIGN " " + arguments);
  }

  const std::string sign_ = "sign --key key --cert cert --chain chain ";
  const std::string verify_ = "verify --anchors anchors ";
  test::TestAuthority authority_;
  test::TestAuthority subordinate_{"Subordinate", &authority_};
  const test::TestTree tree_;
  const fs::path directory_ = tree_.Path("files");
};

TEST_F(ZusignTest, SpeaksAndExitsAsDocumented) {
  ASSERT_EQ(Zusign(sign_ + "--identifier com.example.tool tool").output, "");
  const struct {
    std::string arguments;
    int code;
    const char* output;
  } cases[] = {
      {verify_ + "tool", 0, "tool: valid (an anchor vouches for the signer)\n"},
      {verify_ + "--requirement 'identifier \"tool\"' tool", 1, "(-67050)"},
      {verify_ + "--requirement 'identifier [tool]' tool", 2, "requirement"},
      {verify_ + "key", 1, "(-67062)"},
      {verify_ + "missing", 3, "No such file"},
      {verify_, 2, "one path"},
      {"show tool", 0, "Identifier: com.example.tool\n"},
      {sign_ + "tool", 1, "signed already"},
      {"sign --key key tool", 2, "needs --key and --cert"},
      {"sign --ad-hoc tool", 2, "for Mach-O"},
      {"sign --key missing --cert cert tool", 3, "missing: cannot be read"},
      {"bad", 2, "Usage: zusign"},
      {"show tool >/dev/full", 3, "standard output"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const Outcome outcome = Zusign(c.arguments);
    EXPECT_EQ(outcome.code, c.code);
    EXPECT_THAT(outcome.output, HasSubstr(c.output));
  }
}

TEST_F(ZusignTest, KeepsTheFileWhatItWas) {
  const std::string content = "#!/bin/sh\necho \"given $1\"\n";
  const fs::path file = directory_ / "script";
  test::WriteFile(file, content);
  fs::create_symlink("script", directory_ / "link");
  constexpr auto kSameGroup = static_cast<gid_t>(-1);
  // Refused in a user namespace of one user.
  const bool is_given = ::chown(file.c_str(), 1234, kSameGroup) == 0;
  ASSERT_EQ(::chmod(file.c_str(), 04751), 0);
  // Twice, through the link: the second signature takes the first's place.
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(Zusign(sign_ + "--replace link").output, "");
    EXPECT_THAT(test::ReadFile(file), StartsWith(content));
    EXPECT_LT(fs::file_size(file), content.size() + 4096);
  }
  EXPECT_TRUE(fs::is_symlink(directory_ / "link"));
  struct stat status {};
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 04751u);
  EXPECT_EQ(status.st_uid, is_given ? 1234 : ::geteuid());
  EXPECT_EQ(Run("sh script one").output, "given one\n");
}

// The same commands for the other kinds of code, with a key and without.
TEST_F(ZusignTest, SignsMachOFilesAndBundles) {
  const test::SignedFile image(test::Format::kMachO, directory_ / "image");
  const test::SignedFile bundle(test::Format::kBundle, directory_ / "Tool.app");
  for (const std::string path : {"image", "Tool.app"}) {
    SCOPED_TRACE(path);
    ASSERT_EQ(Zusign("sign --ad-hoc --hash sha384 " + path).output, "");
    EXPECT_EQ(Zusign(verify_ + path).output,
              path + ": valid (ad-hoc, signed by nobody)\n");
    const std::string options = "--replace --identifier com.x --team TEAM ";
    ASSERT_EQ(Zusign(sign_ + options + path).output, "");
    EXPECT_EQ(Zusign(verify_ + "--requirement 'identifier com.x' " + path).code,
              0);
    EXPECT_THAT(Zusign("show " + path).output, HasSubstr("Team: TEAM\n"));
  }
  // What is inside has to be signed first.
  test::WriteBytes(directory_ / "Tool.app/Contents/MacOS/nested",
                   test::BuildMachO());
  EXPECT_THAT(Zusign(sign_ + "--replace Tool.app").output,
              HasSubstr("not signed"));
  EXPECT_EQ(Zusign(verify_ + "--no-resources Tool.app").code, 0);
}

// A copy that cannot be written leaves nothing behind.
TEST_F(ZusignTest, FailsWithoutATrace) {
  const std::string content = test::ReadFile(directory_ / "tool");
  const std::string limited = "trap '' XFSZ; ulimit -f 8; " ZU_TEST_ZUSIGN " ";
  EXPECT_THAT(Run(limited + sign_ + "tool").output,
              HasSubstr("File too large"));
  EXPECT_EQ(test::ReadFile(directory_ / "tool"), content);
  EXPECT_EQ(Run("ls tool*").output, "tool\n");
}

}  // namespace
}  // namespace zu
