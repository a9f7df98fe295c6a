// Starting and stopping the user interface, and what its users' homes get.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
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
using zu::test::FakeTool;
using zu::test::ReadFile;
using zu::test::WriteFile;

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

std::string Line(const std::string& name) {
  return "  <string>/Applications/A.app/" + name + "</string>\n";
}

// The tools that a stop uses, and what they print.
struct StopTools {
  StopTools(const std::string& lines, const std::string& pids,
            const std::string& arguments)
      : grep(Noting("/usr/bin/grep", "printf %s '" + lines + "'")),
        pgrep(Noting("/usr/bin/pgrep", "printf %s '" + pids + "'")),
        ps(Noting("/bin/ps", "printf %s '" + arguments + "'")),
        kill(Noting("/bin/kill", ":")) {}
  const FakeTool grep, pgrep, ps, kill;
};

class UiAgentTest : public zu::test::RootedTest {
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
    user_ = ::chown("/elsewhere", 4321, 4321) == 0 ? 4321 : 0;
    const std::string id = std::to_string(user_);
    owned_ = " " + id + ":" + id + " 777\n";
    WriteFile("/etc/group", "staff:x:" + id + ":\n");
    NameUser("ann");
    child_ = ::fork();
    if (child_ == 0) {  // Lies still until the end.
      if (::setuid(user_) != 0 || ::raise(SIGSTOP) != 0) ::_exit(1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child_, &status, WUNTRACED), child_);
    ASSERT_TRUE(WIFSTOPPED(status));
  }
  void TearDown() override {
    if (child_ <= 0) return;
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }

  void NameUser(const std::string& name) const {
    WriteFile("/etc/passwd", name + ":x:" + std::to_string(user_) +
                                 ":1::/:/bin/sh\nroot:x:0:0::/:/bin/sh\n");
  }

  // Stops the child, which has this command line.
  void StopWith(const std::string& arguments) const {
    const StopTools tools(Line("ZubrantUI"), pid() + "\n", arguments);
    uint32_t users[2], count = 2;
    EXPECT_EQ(StopZuUI(users, &count), 1u);
    EXPECT_EQ(count, 1u);
  }

  std::string pid() const { return std::to_string(child_); }

  uid_t user_ = 0;
  std::string owned_;  // What the user's own files have.
  pid_t child_ = 0;    // A process of the user's.
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
    const FakeTool launchctl =
        Noting("/bin/launchctl", std::string("case $(wc -l </tmp/calls) in ") +
                                     row.failing + ") echo;; esac");
    gOSVersion = row.system;
    EXPECT_EQ(ZuStartZuUI(users, row.users), row.result);
    EXPECT_EQ(TakeCalls(), std::string("launchctl|unload|P\n") + row.calls);
  }
  EXPECT_EQ(StartZuUI(nullptr, 0), 1u);
  EXPECT_EQ(StartZuUI(nullptr, 1), 0u);
  EXPECT_EQ(TakeCalls(), "");
}

TEST_F(UiAgentTest, StopsWhatIsInstalled) {
  const std::string grep = "grep|<string>/Applications/|P\n";
  const std::string self = "  " + std::to_string(::getpid()) + "x";
  const std::string killed = "ps|-p|" + pid() + "|-o|args=\nkill|" + pid() +
                             "\nps|-p|" + self + "|-o|args=\nkill|" + self +
                             "\n";
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
      {Line("ZubrantUI"), 1, "-1\nx\n4294967297\n999999999\n", 5, 1, 0,
       grep + "pgrep|ZubrantUI\n"},
      {Line("ZubrantUI"), 1, pid() + "\n\n999999999\n" + self + "\n", 5, 1, 2,
       grep + "pgrep|ZubrantUI\n" + killed},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lines + row.pids);
    const StopTools tools(row.lines, row.pids, "/Applications/ZubrantUI\n");
    uint32_t users[] = {kUntouched, kUntouched, kUntouched};
    uint32_t count = row.capacity;
    EXPECT_EQ(ZuStopZuUI(users, &count), row.result);
    EXPECT_EQ(count, row.count);
    EXPECT_EQ(ZuStopZuUI(nullptr, &count) + ZuStopZuUI(users, nullptr), 0u);
    const bool stops = row.result == 1 && row.count == 2;
    EXPECT_EQ(users[0], stops ? user_ : kUntouched);
    EXPECT_EQ(users[1], stops ? ::geteuid() : kUntouched);
    EXPECT_EQ(users[2], kUntouched);
    EXPECT_EQ(TakeCalls(), row.calls);
    EXPECT_EQ(ZuGetInstallationType(), row.type);
    TakeCalls();
  }
  EXPECT_FALSE(fs::exists("/Users"));
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
std::string Describe(const std::string& paths) {
  const std::string find =
      "find " + paths +
      " -printf '%p %U:%G %m\\n' -type f -exec cat {} \\; >/tmp/found";
  EXPECT_EQ(std::system(find.c_str()), 0);
  return ReadFile("/tmp/found");
}

// What is missing is made for everybody, but for the place of all homes; what
// is there gets that at the end of the way only. The umask does not matter.
TEST_F(UiAgentTest, MakesTheDirectory) {
  const mode_t old_umask = ::umask(0027);
  for (const bool there : {false, true}) {
    fs::remove_all("/Users");
    if (there) WriteFile(kFile, "older", 0600);
    fs::path path = "/Users";
    std::string expected = there ? "/Users 0:0 750\n" : "/Users 0:0 755\n";
    for (const fs::path& name : kFile.lexically_relative(path)) {
      path /= name;
      const bool kept = there && path.native() < kDirectory;
      expected += path.native() + (kept ? " 0:0 750\n" : owned_);
    }
    StopWith("/ZubrantUI a");
    EXPECT_EQ(Describe("/Users"), expected + " a\n");
  }
  ::umask(old_umask);
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
  const std::string before = Describe("/Users /elsewhere");
  for (const char* name : {".", "..", "ann/b", "../elsewhere"}) {
    NameUser(name);
    StopWith("/ZubrantUI a");
    EXPECT_EQ(Describe("/Users /elsewhere"), before) << name;
    EXPECT_FALSE(fs::exists("/Library")) << name;
  }
}

}  // namespace
