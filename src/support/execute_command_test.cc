#include "support/execute_command.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/child_reaper.h"
#include "support/file_descriptor.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_tool.h"
#include "tests/support/process_state.h"
#include "tests/support/system_log.h"
#include "tests/support/test_root.h"
#include "tests/support/wait_until.h"

namespace zu {
namespace {

using namespace std::string_literals;
using test::CountThreads;
using test::HasChildren;
using test::WaitUntil;
using test::WriteFile;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Output = std::optional<std::string>;

constexpr char kTool[] = "/usr/sbin/zutool";
constexpr char kFifo[] = "/tmp/fifo";

std::string ExceptionLine(const std::string& path, const std::string& reason) {
  return "ZuHelperOSX.+[ExecuteCommand Run:argument:](): Exception caught "
         "trying to execute '" +
         path + "', (NSInvalidArgumentException:" + reason + ")";
}

// As the library's unload does.
[[maybe_unused]] const int kAtExit = std::atexit(&StopChildReaper);

class RunnerTest : public test::RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (!IsSkipped()) std::filesystem::remove_all(kTool);
  }

  test::SystemLog log_;
};

#define ZU_TOOL(text, mode) [] { WriteFile(kTool, text, mode); }
#define ZU_SCRIPT(text) ZU_TOOL("#!/bin/sh\n" text, 0755)

TEST_F(RunnerTest, GivesTheOutputOrNothing) {
  constexpr char kNoAccess[] = "launch path not accessible";
  const struct {
    const char* path;
    void (*prepare)();
    Output output;
    const char* reason = nullptr;  // In the log, if anything is logged.
    std::vector<std::string> arguments = {};
  } cases[] = {
      {kTool, [] {}, {}, kNoAccess},
      {kTool, ZU_TOOL("#!/bin/sh\necho no\n", 0644), {}, kNoAccess},
      {"./true", [] { std::filesystem::current_path("/bin"); }, {}, kNoAccess},
      {kTool, ZU_TOOL("echo no\n", 0755), {}, "Couldn't posix_spawn: error 8"},
      {kTool, ZU_SCRIPT("echo no >&2"), ""},
      {kTool, ZU_SCRIPT("echo yes; kill -9 $$"), "yes\n"},
      {kTool, ZU_SCRIPT("printf 'fine\\303'"), {}},
      {kTool, ZU_SCRIPT("head -c 3000001 /dev/zero | tr '\\000' x"),
       std::string(3000001, 'x')},
      {"/bin/cat",
       [] {},
       "/bin/cat\0/proc/self/cmdline\0|\0a b\0\0$HOME;`id`\0"s,
       nullptr,
       {"/proc/self/cmdline", "|", "a b", "", "$HOME;`id`"}},
      // Options in the launch path, unless it is there as it stands.
      {"/bin/echo -n -e", [] {}, "a b", nullptr, {"a b"}},
      {"/bin/zu -n",
       [] { WriteFile("/bin/zu -n", "#!/bin/sh\necho $#", 0755); }, "0\n"},
      {"/bin/none -n", [] {}, {}, kNoAccess},
      {"/bin/echo n", [] {}, {}, kNoAccess},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    c.prepare();
    EXPECT_TRUE(ExecuteCommand::Run(c.path, c.arguments) == c.output);
    const std::vector<std::string> lines = log_.Take();
    EXPECT_EQ(lines.size(), c.reason != nullptr);
    if (c.reason != nullptr) {
      EXPECT_THAT(lines, ElementsAre(ExceptionLine(c.path, c.reason)));
    }
    EXPECT_TRUE(WaitUntil([] { return !HasChildren(); }));
  }
}

// The host blocks every signal and ignores SIGPIPE; its tool must not notice.
TEST_F(RunnerTest, ChildStartsWithCleanSignals) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  ::signal(SIGPIPE, SIG_IGN);
  // Nothing is blocked, and the bit of SIGPIPE (13) is clear.
  const Output clean_lines = ExecuteCommand::Run(
      "/bin/grep",
      {"-c", "^SigBlk:.0*$\\|^SigIgn:.*[02468ace]...$", "/proc/self/status"});
  ::signal(SIGPIPE, SIG_DFL);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(clean_lines, "2\n");
}

// A tool that reads a line from a FIFO before it ends.
class WaitingTool {
 public:
  explicit WaitingTool(const std::string& script) {
    ::mkfifo(kFifo, 0600);
    WriteFile(kTool, "#!/bin/sh\n" + script, 0755);
    fifo_.reset(::open(kFifo, O_RDWR | O_CLOEXEC));
  }
  void Release() { EXPECT_EQ(::write(fifo_.get(), "\n", 1), 1); }

 private:
  FileDescriptor fifo_;
};

TEST_F(RunnerTest, ToolThatClosesItsOutputIsNotWaitedForButReaped) {
  WaitingTool tool("echo early; exec >&-; read end <"s + kFifo);
  EXPECT_EQ(ExecuteCommand::Run(kTool, {}), "early\n");
  EXPECT_TRUE(HasChildren());
  tool.Release();
  EXPECT_TRUE(WaitUntil([] { return !HasChildren(); }));
}

// Fifteen threads run tools while another one's tool does not end. Every tool
// sees the three standard descriptors and the one that ls itself opens, so none
// holds an end of somebody else's pipe.
TEST_F(RunnerTest, SlowToolDelaysNobodyElse) {
  ::close_range(3, ~0u, CLOSE_RANGE_CLOEXEC);
  WaitingTool tool("echo slow; read end <"s + kFifo);
  Output slow;
  std::thread waiting([&] { slow = ExecuteCommand::Run(kTool, {}); });
  std::vector<std::thread> threads;
  for (int i = 0; i < 15; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 10; ++round) {
        EXPECT_EQ(ExecuteCommand::Run("/bin/ls", {"/proc/self/fd"}),
                  "0\n1\n2\n3\n");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  tool.Release();
  waiting.join();
  EXPECT_EQ(slow, "slow\n");
  EXPECT_TRUE(WaitUntil([] { return !HasChildren(); }));
}

// Hosts that treat their children, or their standard descriptors, in ways of
// their own: the system reaps the children, a thread of the host does, or the
// descriptors that the arguments name are closed.
const test::ChildScenario kOddHost(
    "OddHost", [](const test::Arguments& arguments) {
      const size_t threads = CountThreads();
      std::jthread thief;
      if (arguments[0] == "steals") {
        thief = test::StealChildren();
      } else if (arguments[0] == "ignores") {
        ::signal(SIGCHLD, SIG_IGN);
      } else {
        for (const std::string& each : arguments) ::close(std::stoi(each));
      }
      for (int i = 0; i < 20; ++i) {
        const Output output = ExecuteCommand::Run("/bin/echo", {"heard"});
        if (output != "heard\n") return output ? 4 : 3;
      }
      EXPECT_TRUE(WaitUntil([] { return !HasChildren(); }));
      thief = {};
      EXPECT_TRUE(WaitUntil([=] { return CountThreads() == threads; }));
      return 0;
    });

TEST_F(RunnerTest, OddHosts) {
  for (const test::Arguments& arguments :
       {test::Arguments{"ignores"}, {"steals"}, {"1"}, {"1", "2"}}) {
    EXPECT_EQ(test::RunInChild(kOddHost, arguments).status, 0) << arguments[0];
  }
  EXPECT_THAT(log_.Take(), IsEmpty());
  EXPECT_EQ(test::RunInChild(kOddHost, {"0"}).status, 3);
  EXPECT_THAT(log_.Take(),
              ElementsAre("ZuHelperOSX.+[ExecuteCommand Run:argument:](): "
                          "Bad file handle from pipe"));
}

}  // namespace
}  // namespace zu
