// What zuctl tells of the machine, of files and processes, and how it exits.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <semaphore.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "build_values.h"
#include "platform/json.h"
#include "tests/signing/signed_file.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace zu::test {
namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

struct Outcome {
  int code;
  std::string output;  // Standard output and error.
};

// A command line, in which "zuctl" is the program.
Outcome Shell(const std::string& command) {
  const std::string line =
      "exec >/tmp/output 2>&1 </dev/null; "
      "zuctl() { " ZU_TEST_ZUCTL " \"$@\"; }; " +
      command;
  const int status = std::system(line.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
          ReadFile("/tmp/output")};
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

// Two that complain, which means "on" for one and "off" for the other, one that
// answers and one that is not there.
TEST_F(ZuctlTest, ReportsWhatTheProbesMean) {
  const FakeTool sudo("/usr/bin/sudo", "echo complaint >&2");
  const FakeTool packet_filter("/sbin/pfctl", "");
  const FakeTool defaults("/usr/bin/defaults", "echo complaint >&2");
  const FakeTool disk("/usr/bin/fdesetup", "echo FileVault is On.");
  EXPECT_THAT(Json("zuctl report / /none '\xFF'"),
              AllOf(HasSubstr(R"("firewall":true,)"
                              R"("automatic_update_check":false,)"
                              R"("disk_encryption":true,)"
                              R"("program_assessment":null)"),
                    ContainsRegex("\"/\":[{]\"local\":true,\"case_sensitive\":"
                                  "true[}],\"/none\":null,"
                                  "\"\\\\ufffd\":null")));
  EXPECT_THAT(
      Shell("zuctl report '\xFF'").output,
      AllOf(Not(HasSubstr("complaint")),
            ContainsRegex("\n  Packet filter  +on\n"),
            ContainsRegex("\n  \\\\xFF  +No such file or directory\n")));
}

// It belongs to the agent: a program that looks must leave it.
TEST_F(ZuctlTest, LeavesTheAgentsMark) {
  ::sem_unlink(ZU_SEMAPHORE_NAME);
  EXPECT_THAT(Json("zuctl report"), HasSubstr("\"marked_running\":false"));
  sem_t* const mark = ::sem_open(ZU_SEMAPHORE_NAME, O_CREAT, 0644, 1);
  ASSERT_NE(mark, SEM_FAILED);
  ::sem_close(mark);
  EXPECT_THAT(Json("zuctl report"), HasSubstr("\"marked_running\":true"));
  EXPECT_EQ(::sem_unlink(ZU_SEMAPHORE_NAME), 0);
}

TEST_F(ZuctlTest, TellsWhoSigned) {
  const TestAuthority vendor;
  vendor.WriteAnchors(ZU_ANCHORS_DIRECTORY);
  const Credential credential = vendor.Issue();
  const SignedFile bundle(Format::kBundle);
  bundle.Sign(&credential);
  EXPECT_THAT(Json("zuctl file /tmp/file.app"),
              ContainsRegex("\"status\":\"valid\",\"trusted\":true,\"signer\":"
                            "\"Developer ID[^\"]*\",\"issuer\":\"[^\"]+\","
                            "\"time\":\"20[0-9-]+T[0-9:]+Z\","
                            "\"thumbprint\":\"[0-9A-F]{40}\""));
  // Damage of a resource does not look trusted.
  WriteFile("/tmp/file.app/Contents/Resources/text", "changed");
  EXPECT_THAT(Json("zuctl file /tmp/file.app"),
              HasSubstr(R"("status":"invalid","trusted":false,"signer")"));
  bundle.Sign(nullptr);
  EXPECT_THAT(Shell("zuctl file /tmp/file.app").output,
              ContainsRegex("Status +valid\n +Signer +nobody: an ad-hoc .*\n"
                            "(.*\n)* +Identifier +com.example.app\n"));
}

TEST_F(ZuctlTest, TellsWhatAFileIs) {
  WriteBytes("/tmp/library",
             BuildMachO({.dynamic_library = true, .dylib_version = 0x1230405}));
  EXPECT_THAT(
      Json("zuctl file /tmp/library"),
      AllOf(ContainsRegex("\"kind\":\"file\",\"size\":[0-9]+,\"sha1\":"
                          "\"[0-9A-F]{40}\",\"md5_64\":\"[0-9A-F]{32}\""),
            HasSubstr(R"("version":"291.4.5","compatibility":"1.0.0",)"
                      R"("text":null)")));
}

TEST_F(ZuctlTest, ListsProcessesAndModules) {
  const std::string self = std::to_string(::getpid());
  const std::string program = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_THAT(Shell("zuctl ps").output,
              ContainsRegex("\n *" + self + "    64  " + program + "\n"));
  EXPECT_THAT(Json("zuctl ps"),
              HasSubstr("{\"pid\":" + self + ",\"bits\":64,\"path\":\"" +
                        program + "\"}"));
  EXPECT_THAT(Shell("zuctl modules " + self).output,
              ContainsRegex("^" + program + "\n(/.*\n)*/.*/libc\\.so\\.6\n"));
}

TEST_F(ZuctlTest, ExitsAsDocumented) {
  const struct {
    const char* command;
    int code;
    const char* output;
  } kRows[] = {
      {"zuctl report --help", 0, "usage: zuctl report [OPTION...] [PATH...]"},
      {"zuctl report >/dev/full", 1, "standard output"},
      {"zuctl file /dev/zero", 1, "neither a file nor a directory"},
      {"zuctl ps 1", 2, "too few or too many"},
      {"zuctl ps --count 1", 2, "does not take"},
      {"zuctl modules 2147483648", 2, "not the number"},
      {"zuctl request PING '[]'", 2, "not one JSON object"},
      {"zuctl listen", 3, "no server"},
      {"zuctl file '/\x1b[2J'", 8, "zuctl: /\\x1B[2J: No such file"},
      {"zuctl modules 2147483647", 8, "no such process"},
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
  EXPECT_EQ(
      Shell(nobody + ZU_TEST_ZUCTL " modules " + std::to_string(::getpid()))
          .code,
      9);
}

}  // namespace
}  // namespace zu::test
