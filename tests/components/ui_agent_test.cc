// Starting and stopping the user interface, and what its users' homes get.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>

#include "ZuHelper.h"
#include "build_values.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using zu::test::ReadFile;
using zu::test::WriteFile;

const std::string kDirectory = "/Users/ann/Library/Application Support/Zubrant";
const std::string kFile = kDirectory + "/uiArgs";
constexpr uint32_t kUntouched = 77;

// What a tool does first: it notes its name and words, with bars between. In
// the notes the property list's path is P and the job's label L.
constexpr char kNote[] =
    "IFS='|'; echo \"${0##*/}|$*\" | sed "
    "'s,/Library/LaunchAgents/" ZU_UI_AGENT_LABEL
    ".plist,P,g;s," ZU_UI_AGENT_LABEL ",L,g' >>/tmp/calls\n";
std::string TakeCalls() {
  std::string calls = ReadFile("/tmp/calls");
  fs::remove("/tmp/calls");
  return calls;
}

std::string Line(const std::string& name) {
  return "  <string>/Applications/A.app/" + name + "</string>\n";
}

// What the tools that a stop uses print.
void StopToolsPrint(const std::string& lines, const std::string& pids,
                    const std::string& arguments) {
  WriteFile("/tmp/grep", lines);
  WriteFile("/tmp/pgrep", pids);
  WriteFile("/tmp/ps", arguments);
  WriteFile("/tmp/kill", "");
}

class UiAgentTest : public zu::test::RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (IsSkipped()) return;
    fs::remove_all("/Users");
    TakeCalls();
    const pid_t child = ::fork();
    if (child == 0) ::_exit(::setuid(4321) == 0 ? 0 : 1);
    pid_ = std::to_string(child);
    siginfo_t end;
    ::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT);
    // Not every test root has other users; there all are its own.
    user_ = end.si_status == 0 ? 4321 : 0;
    const std::string id = std::to_string(user_);
    owned_ = " " + id + ":" + id + " 777\n";
    for (const char* tool :
         {"/usr/bin/grep", "/usr/bin/pgrep", "/bin/ps", "/bin/kill"}) {
      WriteFile(tool, std::string("#!/bin/sh\n") + kNote + "cat /tmp/${0##*/}",
                0755);
    }
    WriteFile("/etc/group", "staff:x:" + id + ":\n");
    WriteFile("/etc/passwd", "ann:x:" + id + ":1::/:\n");
  }

  // Stops the child, which has this command line.
  void StopWith(const std::string& arguments) const {
    StopToolsPrint(Line("ZubrantUI"), pid_ + "\n", arguments);
    uint32_t users[2], count = 2;
    EXPECT_EQ(StopZuUI(users, &count), 1u);
    EXPECT_EQ(count, 1u);
  }

  // A process of the user's. That it has ended does not show: it has not been
  // waited for.
  std::string pid_;
  uint32_t user_ = 0;
  std::string owned_;  // What the user's files have.
};

TEST_F(UiAgentTest, StartsByTheTable) {
  const struct {
    uint32_t system, users;
    const char* failing;  // Which calls print something.
    uint32_t result;
    const char* calls;  // After the first, which is always the same.
  } rows[] = {
      {10009999, 2, "1", 1, "launchctl|load|P\n"},
      {10009999, 1, "2", 0, "launchctl|load|P\n"},
      {10010000, 1, "2", 0, "launchctl|bootstrap|gui/1|P\n"},
      {11000000, 4, "1|5|7|8", 1, R"(launchctl|bootstrap|gui/1|P
launchctl|enable|gui/1/L
launchctl|kickstart|-k|gui/1/L
launchctl|kickstart|-k|gui/1/L|bootstrap|gui/2|P
launchctl|kickstart|-k|gui/1/L|bootstrap|gui/2|P|bootstrap|gui/3|P
launchctl|enable|gui/3/L
launchctl|enable|gui/3/L|bootstrap|gui/4|P
)"},
  };
  const uint32_t users[] = {1, 2, 3, 4};
  for (const auto& row : rows) {
    const zu::test::FakeTool launchctl(
        "/bin/launchctl", std::string(kNote) + "case $(wc -l </tmp/calls) in " +
                              row.failing + ") echo;; esac");
    gOSVersion = row.system;
    EXPECT_EQ(ZuStartZuUI(users, row.users), row.result);
    EXPECT_EQ(TakeCalls(), std::string("launchctl|unload|P\n") + row.calls);
  }
  EXPECT_EQ(StartZuUI(nullptr, 0), 1u);
  EXPECT_EQ(StartZuUI(nullptr, 1), 0u);
}

TEST_F(UiAgentTest, StopsWhatIsInstalled) {
  const std::string grep = "grep|<string>/Applications/|P\n";
  const struct {
    std::string lines;
    uint32_t type;
    std::string pids;
    uint32_t capacity, result, count;
    std::string calls;
  } rows[] = {
      {Line("ZubrantUI"), 1, "1\n", 0, 0, 0, ""},
      {"<string>/Applications//\n", 0, "1\n", 9, 1, 9, grep},
      {Line("ZubrantUI") + Line("TalvexDefenseUI"), 2, "", 9, 1, 9,
       grep + "pgrep|TalvexDefenseUI\n"},
      {Line("TalvexShieldProUI"), 3, "1\n2\n", 2, 0, 3,
       grep + "pgrep|TalvexShieldProUI\n"},
      {Line("ZubrantUI"), 1, "-1\nx\n4294967297\n" + pid_ + "\n", 5, 1, 1,
       grep + "pgrep|ZubrantUI\nps|-p|" + pid_ + "|-o|args=\nkill|" + pid_ +
           "\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lines + row.pids);
    StopToolsPrint(row.lines, row.pids, "/Applications/ZubrantUI\n");
    uint32_t users[] = {kUntouched, kUntouched}, count = row.capacity;
    EXPECT_EQ(ZuStopZuUI(users, &count), row.result);
    EXPECT_EQ(count, row.count);
    EXPECT_EQ(ZuStopZuUI(nullptr, &count) + ZuStopZuUI(users, nullptr), 0u);
    EXPECT_EQ(users[0], row.count == 1 ? user_ : kUntouched);
    EXPECT_EQ(users[1], kUntouched);
    EXPECT_EQ(TakeCalls(), row.calls);
    EXPECT_EQ(ZuGetInstallationType(), row.type);
    TakeCalls();
  }
  for (const auto& [line, kept] :
       {std::pair("/Applications/ZubrantUI.app/ZubrantUI --a \u00e4\n",
                  " --a \u00e4\n\n"),
        {"/ZubrantUI /x/ZubrantUI y\n", " /x\n"},
        {"/ZubrantUI /ZubrantUI y\n", ""}}) {
    fs::remove(kFile);
    StopWith(line);
    EXPECT_EQ(ReadFile(kFile), kept) << line;
  }
}

// A line for each that is there, and what lies in files.
std::string Describe(const std::string& path) {
  const std::string find =
      "find " + path +
      " -printf '%p %U:%G %m\\n' -type f -exec cat {} \\; >/tmp/found";
  EXPECT_EQ(std::system(find.c_str()), 0);
  return ReadFile("/tmp/found");
}

// What is missing is made for everybody, but for the place of all homes; what
// is there gets that at the end of the way only.
TEST_F(UiAgentTest, MakesTheDirectory) {
  for (const std::string& way : {owned_, " 0:0 755\n"s}) {
    fs::remove_all("/Users");
    if (way != owned_) WriteFile(kFile, "older", 0600);
    StopWith("/ZubrantUI a");
    EXPECT_EQ(Describe("/Users"),
              "/Users 0:0 755\n/Users/ann" + way + "/Users/ann/Library" + way +
                  "/Users/ann/Library/Application Support" + way + kDirectory +
                  owned_ + kFile + owned_ + " a\n");
  }
}

}  // namespace
