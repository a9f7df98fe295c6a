// The tool as people use it: what it says, how it exits, what it leaves behind.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/macho_builder.h"
#include "tests/support/test_authority.h"

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
    char pattern[] = "/tmp/zu_zusign.XXXXXX";
    directory_ = ::mkdtemp(pattern);
    authority_.WriteAnchors(directory_ / "anchors");
    const test::Credential vendor = subordinate_.Issue();
    const size_t chain = vendor.certificates.find("-----BEGIN", 1);
    Write("key", vendor.key);
    Write("cert", vendor.certificates.substr(0, chain));
    Write("chain", vendor.certificates.substr(chain));
    const test::Credential other =
        authority_.Issue({.extended_key_usage = "serverAuth"});
    Write("other_key", other.key);
    Write("other_cert", other.certificates);
    fs::copy_file("/bin/cat", directory_ / "tool");
  }
  void TearDown() override { fs::remove_all(directory_); }

  void Write(const char* name, const std::string& text) {
    std::ofstream(directory_ / name) << text;
  }
  std::string Read(const char* name) {
    std::ifstream file(directory_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
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
  fs::path directory_;
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
      {verify + "--requirement 'identifier \"com.example.tool\"' tool", 0,
       "valid"},
      {verify + "--requirement 'identifier \"tool\"' tool", 1, "(-67050)"},
      {verify + "--requirement 'identifier [tool]' tool", 2, "requirement"},
      {"verify --anchors missing tool", 1, "(-2147409622)"},
      {verify + "key", 1, "(-67062)"},
      {verify + "missing", 3, "No such file"},
      {verify + "anchors", 3, "anchors: "},
      {verify, 2, "one path"},
      {verify + "tool tool", 2, "one path"},
      {"show tool", 0, "Identifier: com.example.tool\n"},
      {"show tool", 0, "Issuer:  CN=Subordinate"},
      {"show key", 1, "(-67062)"},
      {sign_ + "tool", 1, "signed already"},
      {sign_ + "key", 1, "key: "},
      {sign_ + "missing", 3, "No such file"},
      {sign_ + "anchors", 1, "no bundle"},
      {sign_ + "--replace --timestamp missing tool", 3, "missing"},
      {"sign --key key tool", 2, "needs --key and --cert"},
      {"sign --ad-hoc tool", 2, "for Mach-O"},
      {"sign --ad-hoc --key key tool", 2, "without a key"},
      {"sign --ad-hoc --hash md5 tool", 2, "md5"},
      {"sign --key missing --cert cert tool", 3, "missing: cannot be read"},
      {"sign --key cert --cert cert tool", 3, "private key cannot be read"},
      {"sign --key key --cert key tool", 3, "certificates cannot be read"},
      {"sign --key other_key --cert cert tool", 3, "not the private key's"},
      {"sign --key other_key --cert other_cert tool", 3,
       "not for signing code"},
      {"sign --bad", 2, "--bad"},
      {"bad", 2, "Usage: zusign"},
      {"", 2, "Usage: zusign"},
      {"--help", 0, "Exit status"},
      {"sign --help", 0, "--identifier"},
      {"verify --help", 0, "--requirement"},
      {"show --help", 0, "Usage: zusign show"},
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
  const fs::path tool = directory_ / "tool";
  const std::string content = Read("tool");
  ASSERT_EQ(::chmod(tool.c_str(), 04751), 0);
  const bool has_attributes =
      ::setxattr(tool.c_str(), "user.note", "kept", 4, 0) == 0;
  const bool is_root = ::geteuid() == 0;
  if (is_root) {
    ASSERT_EQ(::chown(tool.c_str(), 1234, 5678), 0);
    ASSERT_EQ(::chmod(tool.c_str(), 04751), 0);
  }
  fs::create_symlink("tool", directory_ / "link");
  const auto entries = [&] {
    return std::distance(fs::directory_iterator(directory_), {});
  };
  const auto before = entries();
  // Twice, through the link: the second signature takes the first's place.
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(Zusign(sign_ + "--replace link").code, 0);
    EXPECT_THAT(Read("tool"), StartsWith(content));
    EXPECT_LT(Read("tool").size(), content.size() + 4096);
    EXPECT_THAT(Zusign("show tool").output, HasSubstr("Identifier: link\n"));
  }
  EXPECT_EQ(entries(), before);
  EXPECT_TRUE(fs::is_symlink(directory_ / "link"));
  struct stat status {};
  ASSERT_EQ(::stat(tool.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 04751u);
  if (is_root) {
    EXPECT_EQ(status.st_uid, 1234u);
    EXPECT_EQ(status.st_gid, 5678u);
  }
  char value[8] = "";
  if (has_attributes) {
    EXPECT_EQ(::getxattr(tool.c_str(), "user.note", value, sizeof(value)), 4);
    EXPECT_STREQ(value, "kept");
  }

  // It runs, and its signature goes where its bytes go.
  EXPECT_EQ(Run("echo text | ./tool").output, "text\n");
  EXPECT_EQ(
      Run("cp tool copy && tar cf archive copy && rm copy && "
          "tar xf archive && " ZU_TEST_ZUSIGN " verify --anchors anchors copy")
          .output,
      "copy: valid (an anchor vouches for the signer)\n");
}

// A script runs as before, signed once or twice, and with its signature
// damaged: only the verdict differs.
TEST_F(ZusignTest, SignsScripts) {
  const struct {
    const char* interpreter;
    const char* text;
  } scripts[] = {
      {"sh", "#!/bin/sh\necho \"given $1\"\n"},
      {"python3", "#!/bin/python3\nimport sys\nprint('given', sys.argv[1])"},
      {"perl", "#!/usr/bin/perl\nprint \"given $ARGV[0]\\n\";\n__END__\n"},
  };
  for (const auto& [interpreter, text] : scripts) {
    SCOPED_TRACE(interpreter);
    const std::string run = interpreter + std::string(" script one");
    if (Run("command -v " + std::string(interpreter)).code != 0) continue;
    Write("script", text);
    const auto expect = [&](int code, const char* verdict) {
      EXPECT_EQ(Run(run).output, "given one\n");
      const Outcome outcome = Zusign("verify --anchors anchors script");
      EXPECT_EQ(outcome.code, code);
      EXPECT_THAT(outcome.output, HasSubstr(verdict));
    };
    expect(1, "(-67062)");
    ASSERT_EQ(Zusign(sign_ + "script").output, "");
    expect(0, "script: valid");
    EXPECT_EQ(Zusign(sign_ + "script").code, 1);
    const size_t size = Read("script").size();
    ASSERT_EQ(Zusign(sign_ + "--replace script").code, 0);
    EXPECT_NEAR(static_cast<double>(Read("script").size()),
                static_cast<double>(size), 8);
    const std::string good = Read("script");
    Write("script", std::string(good).insert(good.find('\n'), "\n#"));
    expect(1, "(-67061)");
    Write("script", std::string(good).replace(good.rfind("# -"), 0, "#\n"));
    expect(1, "(-67045)");
    Write("script", good + "# more\n");
    expect(1, "(-67062)");
  }
}

// The same commands for the other kinds of code, with a key and without.
TEST_F(ZusignTest, SignsMachOFilesAndBundles) {
  test::WriteBytes(directory_ / "image", test::BuildMachO());
  const fs::path contents = directory_ / "Tool.app/Contents";
  fs::create_directories(contents / "MacOS");
  fs::create_directories(contents / "Resources");
  test::WriteBytes(contents / "MacOS/Tool", test::BuildMachO());
  std::ofstream(contents / "Resources/text") << "text";
  std::ofstream(contents / "Info.plist")
      << "<plist version=\"1.0\"><dict><key>CFBundleExecutable</key>"
         "<string>Tool</string><key>CFBundleIdentifier</key>"
         "<string>com.example.app</string></dict></plist>";
  const std::string signing =
      "--replace --identifier com.example --team TEAM --hash sha1 "
      "--hash sha256 ";
  const std::string requirement =
      " --requirement 'identifier com.example and anchor trusted'";
  for (const std::string path : {"image", "Tool.app"}) {
    SCOPED_TRACE(path);
    const std::string verify = "verify --anchors anchors " + path;
    EXPECT_THAT(Zusign(verify).output, HasSubstr("(-67062)"));
    ASSERT_EQ(Zusign("sign --ad-hoc --hash sha384 " + path).output, "");
    EXPECT_EQ(Zusign(verify).output,
              path + ": valid (ad-hoc, signed by nobody)\n");
    EXPECT_THAT(Zusign("show " + path).output, HasSubstr("signed ad-hoc"));
    ASSERT_EQ(Zusign(sign_ + signing + path).output, "");
    EXPECT_THAT(Zusign(verify + requirement).output,
                HasSubstr(": valid (an anchor"));
    EXPECT_THAT(Zusign("show " + path).output, HasSubstr("Team: TEAM\n"));
  }
  std::ofstream(contents / "Resources/text") << "other";
  EXPECT_THAT(Zusign("verify --anchors anchors Tool.app").output,
              HasSubstr("(-67054)"));
  EXPECT_EQ(Zusign("verify --anchors anchors --no-resources Tool.app").code, 0);
}

// A copy that cannot be written leaves nothing behind.
TEST_F(ZusignTest, FailsWithoutATrace) {
  const std::string content = Read("tool");
  const Outcome outcome =
      Run("trap '' XFSZ; ulimit -f 8; " ZU_TEST_ZUSIGN " " + sign_ + "tool");
  EXPECT_EQ(outcome.code, 3);
  EXPECT_THAT(outcome.output, HasSubstr("File too large"));
  EXPECT_EQ(Read("tool"), content);
  for (const auto& entry : fs::directory_iterator(directory_)) {
    EXPECT_FALSE(entry.path().filename().string().starts_with("tool."));
  }
}

}  // namespace
}  // namespace zu
