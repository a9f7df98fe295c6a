// What zuctl tells of the machine, of files and processes, and how it exits.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <semaphore.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmpx.h>
#include <array>
#include <cstdio>
#include <filesystem>
#include <list>
#include <string>
#include <vector>

#include "build_values.h"
#include "platform/json.h"
#include "tests/signing/signed_file.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace zu::test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

struct Outcome {
  int code = -1;
  std::string output;  // Standard output and error.
};

// A command line, in which "zuctl" is the program.
Outcome Shell(const std::string& command) {
  const std::string line =
      "exec 2>&1 </dev/null; zuctl() { " ZU_TEST_ZUCTL " \"$@\"; }; " + command;
  Outcome outcome;
  FILE* const pipe = ::popen(line.c_str(), "re");
  char buffer[4096];
  while (const size_t count = std::fread(buffer, 1, sizeof buffer, pipe)) {
    outcome.output.append(buffer, count);
  }
  const int status = ::pclose(pipe);
  if (WIFEXITED(status)) outcome.code = WEXITSTATUS(status);
  return outcome;
}

// The same for what prints JSON, and must.
std::string Json(const std::string& command) {
  const auto [code, output] = Shell(command + " --json");
  EXPECT_EQ(code, 0) << output;
  platform::JsonReader reader;
  EXPECT_TRUE(reader.Parse(output.data(), output.size(), output.size()))
      << output;
  return output;
}

using ZuctlTest = RootedTest;

TEST_F(ZuctlTest, ReportsWhatTheProbesMean) {
  struct Answer {
    std::string text;
    std::string json;
  };
  constexpr char kComplains[] = "echo complaint >&2";
  const struct {
    const char* key;
    const char* label;
    const char* tool;
    std::array<const char*, 2> bodies;  // When it is off, and on.
    const char* off_text;
  } kProbes[] = {
      {"firewall",
       "Packet filter",
       "/usr/bin/sudo",
       {"echo Status: Disabled", kComplains},
       "off"},
      {"automatic_update_check",
       "Automatic check for updates",
       "/usr/bin/defaults",
       {kComplains, "echo 1"},
       "off, or never set"},
      {"disk_encryption",
       "Disk encryption",
       "/usr/bin/fdesetup",
       {"echo FileVault is Off.", "echo FileVault is On."},
       "off"},
      {"program_assessment",
       "Assessment of programs",
       "/usr/sbin/spctl",
       {"echo assessments disabled", kComplains},
       "off"},
  };
  const auto expect = [&](const auto& answer) {
    const std::string text = Shell("zuctl report").output;
    const std::string json = Json("zuctl report");
    EXPECT_THAT(text, Not(HasSubstr("complaint")));
    for (const auto& probe : kProbes) {
      const Answer wanted = answer(probe);
      EXPECT_THAT(text, ContainsRegex(std::string("\n  ") + probe.label +
                                      "  +" + wanted.text + "\n"));
      EXPECT_THAT(
          json, HasSubstr(std::string("\"") + probe.key + "\":" + wanted.json));
    }
  };
  for (const auto& probe : kProbes) std::filesystem::remove(probe.tool);
  std::filesystem::remove("/sbin/pfctl");
  expect([](const auto& probe) -> Answer {
    return {std::string("unknown: there is no ") + probe.tool, "null"};
  });
  for (const bool on : {false, true}) {
    const FakeTool behind_sudo("/sbin/pfctl", "");
    std::list<FakeTool> tools;
    for (const auto& probe : kProbes) {
      tools.emplace_back(probe.tool, probe.bodies[on]);
    }
    expect([on](const auto& probe) -> Answer {
      return {on ? "on" : probe.off_text, on ? "true" : "false"};
    });
  }
  // sudo would complain, which counts as "on".
  const FakeTool sudo("/usr/bin/sudo", kComplains);
  EXPECT_THAT(Json("zuctl report"), HasSubstr("\"firewall\":null"));
}

TEST_F(ZuctlTest, ReportsVolumesAndUsers) {
  utmpx record{};
  record.ut_type = USER_PROCESS;
  std::string("\x1b[2J\"").copy(record.ut_user, sizeof record.ut_user);
  WriteFile("/run/utmp",
            {reinterpret_cast<const char*>(&record), sizeof record});
  const std::string json = Json("zuctl report / /none '\xFF'");
  EXPECT_THAT(json, HasSubstr(R"("logged_in":["\u001b[2J\""])"));
  EXPECT_THAT(json, ContainsRegex("\"/\":[{]\"local\":true,\"case_sensitive\":"
                                  "true[}],\"/none\":null,\"\\\\ufffd\":null"));
  const std::string text = Shell("zuctl report '\xFF'").output;
  EXPECT_THAT(text, ContainsRegex("Logged in +\\\\x1B\\[2J\"\n"));
  EXPECT_THAT(text, ContainsRegex("  \\\\xFF +No such file or directory\n"));
}

// It belongs to the agent: a program that looks must leave it.
TEST_F(ZuctlTest, LeavesTheAgentsMark) {
  ::sem_unlink(ZU_SEMAPHORE_NAME);
  EXPECT_THAT(Json("zuctl report"), HasSubstr("\"marked_running\":false"));
  sem_t* const mark = ::sem_open(ZU_SEMAPHORE_NAME, O_CREAT, 0644, 1);
  ASSERT_NE(mark, SEM_FAILED);
  ::sem_close(mark);
  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(Json("zuctl report"), HasSubstr("\"marked_running\":true"));
  }
  EXPECT_EQ(::sem_unlink(ZU_SEMAPHORE_NAME), 0);
}

TEST_F(ZuctlTest, TellsWhoSigned) {
  const TestAuthority vendor;
  vendor.WriteAnchors(ZU_ANCHORS_DIRECTORY);
  const Credential credential = vendor.Issue();
  const Credential stranger = MakeSelfSigned();
  const auto signature = [](const SignedFile& file) {
    const std::string json = Json(std::string("zuctl file ") + file.path());
    const size_t start = json.find("\"signature\":");
    return json.substr(start, json.find('}', start) - start);
  };
  const SignedFile file(Format::kMachO, "/tmp/file");
  EXPECT_EQ(signature(file), R"("signature":{"status":"unsigned")");
  file.Sign(&credential);
  EXPECT_THAT(signature(file),
              ContainsRegex("\"status\":\"valid\",\"trusted\":true,\"signer\":"
                            "\"Developer ID[^\"]*\",\"issuer\":\"[^\"]+\","
                            "\"time\":\"20[0-9-]+T[0-9:]+Z\","
                            "\"thumbprint\":\"[0-9A-F]{40}\""));
  EXPECT_THAT(Shell("zuctl file /tmp/file").output,
              ContainsRegex("Signed at +20[0-9-]+ [0-9:]+ GMT\n"));
  std::vector<std::byte> bytes = ReadBytes(file.path());
  bytes[bytes.size() / 4] ^= std::byte{1};
  WriteBytes(file.path(), bytes);
  EXPECT_THAT(signature(file),
              HasSubstr(R"("status":"invalid","trusted":false,"signer")"));
  const SignedFile other(Format::kMachO, "/tmp/other");
  other.Sign(&stranger);
  EXPECT_THAT(signature(other),
              HasSubstr(R"("status":"valid","trusted":false,"signer")"));
  const SignedFile bundle(Format::kBundle);
  bundle.Sign(&credential);
  WriteFile("/tmp/file.app/Contents/Resources/text", "changed");
  EXPECT_THAT(signature(bundle),
              HasSubstr(R"("status":"invalid","trusted":false,"signer")"));
  const SignedFile ad_hoc(Format::kBundle, "/tmp/ad_hoc.app");
  ad_hoc.Sign(nullptr);
  EXPECT_EQ(signature(ad_hoc),
            R"("signature":{"status":"valid","signer":null)");
  EXPECT_THAT(Shell("zuctl file /tmp/ad_hoc.app").output,
              ContainsRegex("Status +valid\n +Signer +nobody: an ad-hoc .*\n"
                            "(.*\n)* +Identifier +com.example.app\n"));
}

TEST_F(ZuctlTest, TellsWhatAFileIs) {
  WriteFile("/tmp/text", "abc");
  EXPECT_THAT(
      Json("zuctl file /tmp/text"),
      HasSubstr("\"kind\":\"file\",\"size\":3,\"sha1\":"
                "\"A9993E364706816ABA3E25717850C26C9CD0D89D\",\"md5_64\":\""));
  WriteBytes("/tmp/library",
             BuildMachO({.dynamic_library = true, .dylib_version = 0x1230405}));
  EXPECT_THAT(Json("zuctl file /tmp/library"),
              HasSubstr(R"("version":"291.4.5","compatibility":"1.0.0",)"
                        R"("text":null)"));
}

TEST_F(ZuctlTest, ListsProcessesAndModules) {
  const std::string self = std::to_string(::getpid());
  const std::string program = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_THAT(Shell("zuctl ps").output,
              ContainsRegex("\n *" + self + "    64  " + program + "\n"));
  EXPECT_THAT(Json("zuctl ps"),
              HasSubstr("{\"pid\":" + self + ",\"bits\":64,\"path\":\"" +
                        program + "\"}"));
  const auto [code, output] = Shell("zuctl modules " + self);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(output.substr(0, program.size() + 1), program + "\n");
  EXPECT_THAT(output, ContainsRegex("\n/[^\n]*/libc\\.so\\.6\n"));
}

// What a terminal shows fits, and only that is coloured.
TEST_F(ZuctlTest, LooksAtTheTerminal) {
  if (Shell("command -v script").code != 0) GTEST_SKIP() << "no script";
  const std::string file = "/tmp/" + std::string(60, 'x') + "/file";
  WriteFile(file, "");
  constexpr char kCut[] = "[^.]/tmp/x+[.][.][.]x+/file";
  EXPECT_THAT(Shell("zuctl file " + file).output, HasSubstr(file));
  const auto shown = [&](const std::string& settings) {
    return Shell("export TERM=xterm COLUMNS=60 " + settings +
                 "; script -qec '" ZU_TEST_ZUCTL " file " + file +
                 "' /dev/null")
        .output;
  };
  EXPECT_THAT(shown(""), ContainsRegex(kCut));
  EXPECT_THAT(shown(""), HasSubstr("\x1b[1mFile\x1b[0m"));
  for (const char* const plain : {"NO_COLOR=1", "TERM=dumb"}) {
    EXPECT_THAT(shown(plain), Not(HasSubstr("\x1b[1m"))) << plain;
  }
}

TEST_F(ZuctlTest, ExitsAsDocumented) {
  const struct {
    const char* command;
    int code;
    const char* output;
  } kRows[] = {
      {"zuctl report --help", 0, "usage: zuctl report [OPTION...] [PATH...]"},
      {"zuctl file /none", 8, "zuctl: /none: No such file"},
      {"zuctl file '/\x1b[2J'", 8, "zuctl: /\\x1B[2J: No such file"},
      {"zuctl file /bin/sh/x", 8, "Not a directory"},
      {"zuctl file /dev/zero", 1, "neither a file nor a directory"},
      {"zuctl file", 2, "too few or too many"},
      {"zuctl ps 1", 2, "too few or too many"},
      {"zuctl ps --count 1", 2, "does not take"},
      {"zuctl modules 2147483647", 8, "no such process"},
      {"zuctl modules 2147483648", 2, "not the number"},
      {"zuctl modules 1x", 2, "not the number"},
      {"zuctl modules 0", 2, "not the number"},
      {"zuctl report >/dev/full", 1, "standard output"},
  };
  for (const auto& row : kRows) {
    const Outcome outcome = Shell(row.command);
    EXPECT_EQ(outcome.code, row.code) << row.command;
    EXPECT_THAT(outcome.output, HasSubstr(row.output));
  }
}

TEST_F(ZuctlTest, SaysWhatIsNotPermitted) {
  const std::string nobody = "setpriv --reuid 65534 --clear-groups ";
  if (Shell(nobody + "true").code != 0) GTEST_SKIP() << "setpriv is refused";
  WriteFile("/tmp/secret", "", 0600);
  const std::string zuctl = nobody + ZU_TEST_ZUCTL;
  EXPECT_EQ(Shell(zuctl + " file /tmp/secret").code, 9);
  EXPECT_EQ(Shell(zuctl + " modules " + std::to_string(::getpid())).code, 9);
  const FakeTool sudo("/usr/bin/sudo", "");
  const FakeTool filter("/sbin/pfctl", "");
  EXPECT_THAT(Shell(zuctl + " report").output, HasSubstr("only root may ask"));
}

}  // namespace
}  // namespace zu::test
