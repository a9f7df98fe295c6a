// The tool as people use it: what it says, how it exits, what it leaves behind.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/signing/signed_file.h"
#include "tests/support/test_authority.h"
#include "tests/support/test_tree.h"

namespace zu {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Outcome {
  int code = -1;
  std::string output;  // Standard output and error.
};

class ZusignTest : public ::testing::Test {
 protected:
  ZusignTest() {
    authority_.WriteAnchors(directory_ / "anchors");
    const test::Credential vendor = subordinate_.Issue();
    const size_t chain = vendor.certificates.find("-----BEGIN", 1);
    Write("key", vendor.key);
    Write("cert", vendor.certificates.substr(0, chain));
    Write("chain", vendor.certificates.substr(chain));
    Write("other_key", authority_.Issue().key);
    fs::copy_file("/bin/cat", directory_ / "tool");
  }

  void Write(const char* name, const std::string& text) {
    std::ofstream(directory_ / name) << text;
  }
  std::string Read(const char* name) {
    std::ifstream file(directory_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  auto Entries() const {
    return std::distance(fs::directory_iterator(directory_), {});
  }

  // Runs a command line in the directory.
  Outcome Run(const std::string& command) {
    const std::string line = "cd " + directory_.string() + " && { " + command +
                             "; } 2>&1 </dev/null";
    Outcome outcome;
    FILE* const pipe = ::popen(line.c_str(), "re");
    char buffer[4096];
    while (const size_t count = std::fread(buffer, 1, sizeof(buffer), pipe)) {
      outcome.output.append(buffer, count);
    }
    const int status = ::pclose(pipe);
    if (WIFEXITED(status)) outcome.code = WEXITSTATUS(status);
    return outcome;
  }
  Outcome Zusign(const std::string& arguments) {
    return Run(ZU_TEST_ZUSIGN " " + arguments);
  }

  const std::string sign_ = "sign --key key --cert cert --chain chain ";
  test::TestAuthority authority_;
  test::TestAuthority subordinate_{"Subordinate", &authority_};
  const test::TestTree tree_;
  const fs::path directory_ = tree_.root();
};

TEST_F(ZusignTest, SpeaksAndExitsAsDocumented) {
  ASSERT_EQ(Zusign(sign_ + "--identifier com.example.tool tool").output, "");
  const std::string verify = "verify --anchors anchors ";
  const struct {
    std::string arguments;
    int code;
    const char* output;
  } cases[] = {
      {verify + "tool", 0, "tool: valid (an anchor vouches for the signer)\n"},
      {verify + "--requirement 'identifier \"tool\"' tool", 1, "(-67050)"},
      {verify + "--requirement 'identifier [tool]' tool", 2, "requirement"},
      {verify + "key", 1, "(-67062)"},
      {verify + "missing", 3, "No such file"},
      {verify, 2, "one path"},
      {"show tool", 0, "Identifier: com.example.tool\n"},
      {sign_ + "tool", 1, "signed already"},
      {sign_ + "missing", 3, "No such file"},
      {"sign --key key tool", 2, "needs --key and --cert"},
      {"sign --ad-hoc tool", 2, "for Mach-O"},
      {"sign --key missing --cert cert tool", 3, "missing: cannot be read"},
      {"sign --key other_key --cert cert tool", 3, "not the private key's"},
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
  Write("script", "#!/bin/sh\necho \"given $1\"\n");
  for (const char* name : {"tool", "script"}) {
    SCOPED_TRACE(name);
    const fs::path file = directory_ / name;
    const std::string content = Read(name);
    const uid_t owner = ::geteuid() == 0 ? 1234 : ::geteuid();
    ASSERT_EQ(::chown(file.c_str(), owner, static_cast<gid_t>(-1)), 0);
    ASSERT_EQ(::chmod(file.c_str(), 04751), 0);
    fs::remove(directory_ / "link");
    fs::create_symlink(name, directory_ / "link");
    const auto before = Entries();
    // Twice, through the link: the second signature takes the first's place.
    for (int i = 0; i < 2; ++i) {
      ASSERT_EQ(Zusign(sign_ + "--replace link").output, "");
      EXPECT_THAT(Read(name), StartsWith(content));
      EXPECT_LT(Read(name).size(), content.size() + 4096);
    }
    EXPECT_EQ(Entries(), before);
    EXPECT_TRUE(fs::is_symlink(directory_ / "link"));
    struct stat status {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 04751u);
    EXPECT_EQ(status.st_uid, owner);
  }
  EXPECT_EQ(Run("sh script one").output, "given one\n");
}

// The same commands for the other kinds of code, with a key and without.
TEST_F(ZusignTest, SignsMachOFilesAndBundles) {
  const test::SignedFile image(test::Format::kMachO, directory_ / "image");
  const test::SignedFile bundle(test::Format::kBundle, directory_ / "Tool.app");
  for (const std::string path : {"image", "Tool.app"}) {
    SCOPED_TRACE(path);
    const std::string verify = "verify --anchors anchors " + path;
    ASSERT_EQ(Zusign("sign --ad-hoc --hash sha384 " + path).output, "");
    EXPECT_EQ(Zusign(verify).output,
              path + ": valid (ad-hoc, signed by nobody)\n");
    const std::string options = "--replace --identifier com.x --team TEAM ";
    ASSERT_EQ(Zusign(sign_ + options + path).output, "");
    EXPECT_EQ(Zusign(verify + " --requirement 'identifier com.x'").code, 0);
    EXPECT_THAT(Zusign("show " + path).output, HasSubstr("Team: TEAM\n"));
  }
  // What is inside has to be signed first.
  test::WriteBytes(directory_ / "Tool.app/Contents/MacOS/nested",
                   test::BuildMachO());
  EXPECT_THAT(Zusign(sign_ + "--replace Tool.app").output,
              HasSubstr("not signed"));
  EXPECT_EQ(Zusign("verify --anchors anchors Tool.app").code, 1);
  EXPECT_EQ(Zusign("verify --anchors anchors --no-resources Tool.app").code, 0);
}

// A copy that cannot be written leaves nothing behind.
TEST_F(ZusignTest, FailsWithoutATrace) {
  const std::string content = Read("tool");
  const auto before = Entries();
  const Outcome outcome =
      Run("trap '' XFSZ; ulimit -f 8; " ZU_TEST_ZUSIGN " " + sign_ + "tool");
  EXPECT_EQ(outcome.code, 3);
  EXPECT_THAT(outcome.output, HasSubstr("File too large"));
  EXPECT_EQ(Read("tool"), content);
  EXPECT_EQ(Entries(), before);
}

}  // namespace
}  // namespace zu
