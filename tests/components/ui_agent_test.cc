// Starting and stopping the user interface, and what its users' homes get.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "ZuHelper.h"
#include "build_values.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace zu {
namespace {

namespace fs = std::filesystem;
using test::FakeTool;
using test::ReadFile;
using test::WriteFile;

const fs::path kDirectory = "/Users/ann/Library/Application Support/Zubrant";
const fs::path kFile = kDirectory / "uiArgs";
constexpr uint32_t kUntouched = 77;

// A tool that notes its name and words, with bars between, and does as told. In
// the notes the property list's path is P and the job's label L.
FakeTool Noting(const char* path, const std::string& body) {
  constexpr char kNote[] =
      "IFS='|'; echo \"${0##*/}|$*\" | sed "
      "'s,/Library/LaunchAgents/" ZU_UI_AGENT_LABEL
      ".plist,P,g;s," ZU_UI_AGENT_LABEL ",L,g' >>/tmp/calls\n";
  return FakeTool(path, kNote + body);
}
std::string TakeCalls() {
  std::string calls = ReadFile("/tmp/calls");
  fs::remove("/tmp/calls");
  return calls;
}

// The tools that a stop uses, and what they print.
struct StopTools {
  StopTools(const std::string& name, const std::string& pids,
            const std::string& line)
      : grep(Noting("/usr/bin/grep", "echo '<string>/Applications/" + name +
                                         ".app/" + name + "</string>'")),
        pgrep(Noting("/usr/bin/pgrep", "printf %s '" + pids + "'")),
        ps(Noting("/bin/ps", "printf %s '" + line + "'")),
        kill(Noting("/bin/kill", ":")) {}
  const FakeTool grep, pgrep, ps, kill;
};

class UiAgentTest : public test::RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (IsSkipped()) return;
    for (const char* path : {"/Users", "/elsewhere", "/Library", "/tmp/calls",
                             "/etc/passwd", "/etc/group"}) {
      fs::remove_all(path);
    }
    // Not every test root has other users; there all are its own.
    fs::create_directory("/elsewhere");
    const bool others = ::chown("/elsewhere", 4321, 4322) == 0;
    user_ = others ? 4321 : 0;
    const std::string group = others ? "4322" : "0";
    owned_ = std::to_string(user_) + ":" + group + " 777\n";
    WriteFile("/etc/group", "staff:x:" + group + ":\n");
    NameUser("ann");
    const pid_t child = ::fork();
    if (child == 0) {  // Lies still until the end.
      if (::setuid(user_) != 0 || ::raise(SIGSTOP) != 0) ::_exit(1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, WUNTRACED), child);
    ASSERT_TRUE(WIFSTOPPED(status));
    pid_ = std::to_string(child);
  }
  void TearDown() override {
    if (pid_.empty()) return;
    ::kill(std::stoi(pid_), SIGKILL);
    ::waitpid(std::stoi(pid_), nullptr, 0);
  }

  void NameUser(const std::string& name) const {
    WriteFile("/etc/passwd", name + ":x:" + std::to_string(user_) +
                                 ":1::/:/bin/sh\nroot:x:0:0::/:/bin/sh\n");
  }

  // Stops the child, which has this line.
  void StopWith(const std::string& line) const {
    const StopTools tools("ZubrantUI", pid_ + "\n", line);
    uint32_t users[2], count = 2;
    EXPECT_EQ(StopZuUI(users, &count), 1u);
    EXPECT_EQ(count, 1u);
    EXPECT_THAT(TakeCalls(), testing::EndsWith("kill|" + pid_ + "\n"));
  }

  uid_t user_ = 0;
  std::string owned_;  // What the user's own files have.
  std::string pid_;    // A process of the user's.
};

TEST_F(UiAgentTest, StartsByTheTable) {
  const struct {
    uint32_t system;
    std::vector<uint32_t> users;
    const char* failing;  // Which calls print something.
    uint32_t result;
    const char* calls;  // After the first, which is always the same.
  } rows[] = {
      {10009999, {501, 502}, "1", 1, "launchctl|load|P\n"},
      {10009999, {501}, "2", 0, "launchctl|load|P\n"},
      {10010000, {9}, "2", 0, "launchctl|bootstrap|gui/9|P\n"},
      {11000000, {1, 2, 3, 4}, "1|5|7|10", 1, R"(launchctl|bootstrap|gui/1|P
launchctl|enable|gui/1/L
launchctl|kickstart|-k|gui/1/L
launchctl|kickstart|-k|gui/1/L|bootstrap|gui/2|P
launchctl|kickstart|-k|gui/1/L|bootstrap|gui/2|P|bootstrap|gui/3|P
launchctl|enable|gui/3/L
launchctl|enable|gui/3/L|bootstrap|gui/4|P
launchctl|enable|gui/4/L
launchctl|kickstart|-k|gui/4/L
)"},
  };
  for (const auto& row : rows) {
    const FakeTool launchctl =
        Noting("/bin/launchctl", std::string("case $(wc -l </tmp/calls) in ") +
                                     row.failing + ") echo;; esac");
    gOSVersion = row.system;
    const auto count = static_cast<uint32_t>(row.users.size());
    EXPECT_EQ(ZuStartZuUI(row.users.data(), count), row.result);
    EXPECT_EQ(TakeCalls(), std::string("launchctl|unload|P\n") + row.calls);
  }
  EXPECT_EQ(StartZuUI(nullptr, 0), 1u);
  EXPECT_EQ(StartZuUI(nullptr, 1), 0u);
  EXPECT_EQ(TakeCalls(), "");
}

TEST_F(UiAgentTest, StopsEarlyByTheTable) {
  const std::string grep = "grep|<string>/Applications/|P\n";
  const struct {
    const char* name;
    const char* pids;
    uint32_t capacity, result, count;
    std::string calls;
  } rows[] = {
      {"ZubrantUI", "1\n", 0, 0, 0, ""},
      {"ZubrantUi", "1\n", 9, 1, 9, grep},
      {"TalvexDefenseUI", "", 9, 1, 9, grep + "pgrep|TalvexDefenseUI\n"},
      {"TalvexShieldProUI", "1\n2\n", 2, 0, 3,
       grep + "pgrep|TalvexShieldProUI\n"},
      {"ZubrantUI", "-1\nx\n4294967297\n999999999\n", 5, 1, 0,
       grep + "pgrep|ZubrantUI\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.pids);
    const StopTools tools(row.name, row.pids, "");
    uint32_t users[] = {kUntouched}, count = row.capacity;
    EXPECT_EQ(ZuStopZuUI(users, &count), row.result);
    EXPECT_EQ(count, row.count);
    EXPECT_EQ(ZuStopZuUI(nullptr, &count) + ZuStopZuUI(users, nullptr), 0u);
    EXPECT_EQ(users[0], kUntouched);
    EXPECT_EQ(TakeCalls(), row.calls);
  }
}

TEST_F(UiAgentTest, StopsEveryProcess) {
  const std::string self = "  " + std::to_string(::getpid()) + "x";
  const StopTools tools("ZubrantUI", pid_ + "\n\n999999999\n" + self + "\n",
                        "/Applications/ZubrantUI\n");
  uint32_t users[] = {kUntouched, kUntouched, kUntouched}, count = 5;
  EXPECT_EQ(StopZuUI(users, &count), 1u);
  EXPECT_EQ(count, 2u);
  EXPECT_THAT(users, testing::ElementsAre(user_, ::geteuid(), kUntouched));
  EXPECT_THAT(TakeCalls(),
              testing::EndsWith("|ZubrantUI\nps|-p|" + pid_ +
                                "|-o|args=\nkill|" + pid_ + "\nps|-p|" + self +
                                "|-o|args=\nkill|" + self + "\n"));
  EXPECT_FALSE(fs::exists("/Users"));
}

TEST_F(UiAgentTest, KeepsTheArguments) {
  const struct {
    const char *line, *kept;
  } rows[] = {
      {"/Applications/ZubrantUI.app/ZubrantUI\n", ""},
      {"/Applications/ZubrantUI.app/ZubrantUI --a \xC3\xA4\n",
       " --a \xC3\xA4\n\n"},
      {"/ZubrantUI /x/ZubrantUI y\n", " /x\n"},
      {"/ZubrantUI /ZubrantUI y\n", ""},
      {"ZubrantUI y\n", ""},
  };
  for (const auto& row : rows) {
    fs::remove(kFile);
    StopWith(row.line);
    EXPECT_EQ(ReadFile(kFile), row.kept) << row.line;
  }
}

// A line for each that is there, and what lies in files.
std::string Describe(const std::string& paths) {
  constexpr char kWhat[] = " -printf '%p %U:%G %m\\n' -type f -exec cat {} \\;";
  FILE* const find = ::popen(("find " + paths + kWhat).c_str(), "r");
  char text[4096];
  const size_t size = std::fread(text, 1, sizeof text, find);
  ::pclose(find);
  return {text, size};
}

// What is missing is made for everybody, but for the place of all homes; what
// is there gets that at the end of the way only. The umask does not matter.
TEST_F(UiAgentTest, MakesTheDirectory) {
  const mode_t old_umask = ::umask(0027);
  for (fs::path last = kFile;; last = last.parent_path()) {
    SCOPED_TRACE(last);
    fs::remove_all("/Users");
    fs::create_directories(last == kFile ? kDirectory : last);
    if (last == kFile) WriteFile(kFile, "older", 0600);
    fs::path path = "/Users";
    std::string expected =
        fs::exists(path) ? "/Users 0:0 750\n" : "/Users 0:0 755\n";
    for (const fs::path& name : kFile.lexically_relative(path)) {
      path /= name;
      const bool kept = fs::exists(path) && path.native() < kDirectory;
      expected += path.native() + " " + (kept ? "0:0 750\n" : owned_);
    }
    StopWith("/ZubrantUI a");
    EXPECT_EQ(Describe("/Users"), expected + " a\n");
    if (last == "/") break;
  }
  ::umask(old_umask);
  // Without the group the directory stays with the one that it has.
  WriteFile("/etc/group", "");
  StopWith("/ZubrantUI b");
  EXPECT_EQ(Describe("'" + kDirectory.native() + "' -prune"),
            kDirectory.native() + " " + owned_);
  EXPECT_EQ(ReadFile(kFile), " b\n");
}

// A link in any place of the way, a file or a directory where the other should
// be, names that lead elsewhere: nothing but the file's own place changes.
TEST_F(UiAgentTest, TouchesNothingElse) {
  for (fs::path place = kFile; place != "/Users"; place = place.parent_path()) {
    SCOPED_TRACE(place);
    fs::remove_all("/Users");
    fs::remove_all("/elsewhere");
    WriteFile(kFile, "secret", 0600);
    fs::rename(place, "/elsewhere");
    fs::create_symlink("/elsewhere", place);
    const std::string before = Describe("/elsewhere");
    StopWith("/ZubrantUI a");
    EXPECT_EQ(Describe("/elsewhere"), before);
    EXPECT_EQ(fs::is_symlink(place), place != kFile);
  }
  fs::remove_all("/Users");
  WriteFile(kFile / "below", "secret");
  StopWith("/ZubrantUI a");
  EXPECT_EQ(std::distance(fs::directory_iterator(kDirectory), {}), 1);
  EXPECT_EQ(ReadFile(kFile / "below"), "secret");
  fs::remove_all(kDirectory);
  WriteFile(kDirectory, "file", 0600);
  fs::create_directory("/Library");
  const char all[] = "/Users /elsewhere /Library";
  const std::string before = Describe(all);
  for (const char* name : {"ann", ".", "..", "ann/b", "../elsewhere"}) {
    NameUser(name);
    StopWith("/ZubrantUI a");
    EXPECT_EQ(Describe(all), before) << name;
  }
}

}  // namespace
}  // namespace zu
