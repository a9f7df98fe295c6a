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
using test::HasChildren;
using test::WaitUntil;
using test::WriteFile;
using ::testing::ElementsAre;
using Output = std::optional<std::string>;

constexpr char kTool[] = "/usr/sbin/zutool";
constexpr char kFifo[] = "/tmp/fifo";

// As the library's unload does.
[[maybe_unused]] const int kAtExit = std::atexit(&StopChildReaper);

using RunnerTest = test::RootedTest;

TEST_F(RunnerTest, GivesTheOutputOrNothing) {
  constexpr char kNoAccess[] = "launch path not accessible";
  const struct {
    const char* path;
    std::string script;  // What the tool is.
    Output output;
    const char* reason = nullptr;  // In the log, if anything is logged.
    std::vector<std::string> arguments = {};
  } cases[] = {
      {"/etc/passwd", "", {}, kNoAccess},
      {"./true", "", {}, kNoAccess},
      {kTool, "echo no\n", {}, "Couldn't posix_spawn: error 8"},
      {kTool, "#!/bin/sh\necho no >&2; echo yes; kill -9 $$", "yes\n"},
      {kTool, "#!/bin/sh\nprintf 'fine\\303'", {}},
      {kTool, "#!/bin/sh\nhead -c 3000001 /dev/zero | tr '\\000' x",
       std::string(3000001, 'x')},
      {"/bin/cat",
       "",
       "/bin/cat\0/proc/self/cmdline\0|\0a b\0\0$HOME;`id`\0"s,
       nullptr,
       {"/proc/self/cmdline", "|", "a b", "", "$HOME;`id`"}},
      // Options in the launch path, unless it is there as it stands.
      {"/bin/echo -n -e", "", "a b", nullptr, {"a b"}},
      {"/bin/zu -n", "", "0\n"},
      {"/bin/none -n", "", {}, kNoAccess},
  };
  test::SystemLog log;
  std::filesystem::current_path("/bin");
  WriteFile("/bin/zu -n", "#!/bin/sh\necho $#", 0755);
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    WriteFile(kTool, c.script, 0755);
    EXPECT_TRUE(ExecuteCommand::Run(c.path, c.arguments) == c.output);
    std::vector<std::string> lines;
    if (c.reason != nullptr) {
      lines = {
          "ZuHelperOSX.+[ExecuteCommand Run:argument:](): Exception "
          "caught trying to execute '"s +
          c.path + "', (NSInvalidArgumentException:" + c.reason + ")"};
    }
    EXPECT_EQ(log.Take(), lines);
    EXPECT_TRUE(WaitUntil([] { return !HasChildren(); }));
  }
}

// Fifteen threads run tools while another one's tool has closed its output but
// does not end. Every tool sees the three standard descriptors and the one that
// ls itself opens, so none holds an end of somebody else's pipe.
TEST_F(RunnerTest, SlowToolsDelayNobody) {
  ::close_range(3, ~0u, CLOSE_RANGE_CLOEXEC);
  ::mkfifo(kFifo, 0600);
  const FileDescriptor fifo(::open(kFifo, O_RDWR | O_CLOEXEC));
  WriteFile(kTool, "#!/bin/sh\necho $1; eval \"$2\"; read end <"s + kFifo,
            0755);
  EXPECT_EQ(ExecuteCommand::Run(kTool, {"early", "exec >&-"}), "early\n");
  EXPECT_TRUE(HasChildren());
  Output slow;
  std::thread waiting([&] { slow = ExecuteCommand::Run(kTool, {"slow"}); });
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
  EXPECT_EQ(::write(fifo.get(), "\n\n", 2), 2);
  waiting.join();
  EXPECT_EQ(slow, "slow\n");
  EXPECT_TRUE(WaitUntil([] { return !HasChildren(); }));
}

// Hosts that treat their children, or their standard descriptors, in ways of
// their own: the system reaps the children and all signals are blocked, a
// thread of the host reaps, or the descriptors that the arguments name are
// closed.
const test::ChildScenario kOddHost(
    "OddHost", [](const test::Arguments& arguments) {
      std::jthread thief;
      if (arguments[0] == "steals") {
        thief = test::StealChildren();
      } else if (arguments[0] == "ignores") {
        ::signal(SIGCHLD, SIG_IGN);
        ::signal(SIGPIPE, SIG_IGN);
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
      } else {
        for (const std::string& each : arguments) ::close(std::stoi(each));
      }
      for (int i = 0; i < 20; ++i) {
        // Nothing is blocked, and the bits of SIGCHLD and SIGPIPE are clear.
        const Output clean_lines = ExecuteCommand::Run(
            "/bin/grep",
            {"-c", "^SigBlk:.0*$\\|^SigIgn:.*[02468ace][02468ace]...$",
             "/proc/self/status"});
        if (clean_lines != "2\n") return 3;
      }
      EXPECT_TRUE(WaitUntil([] { return !HasChildren(); }));
      return 0;
    });

TEST_F(RunnerTest, OddHosts) {
  test::SystemLog log;
  for (const test::Arguments& arguments :
       {test::Arguments{"ignores"}, {"steals"}, {"1", "2"}}) {
    EXPECT_EQ(test::RunInChild(kOddHost, arguments).status, 0) << arguments[0];
  }
  EXPECT_EQ(test::RunInChild(kOddHost, {"0"}).status, 3);
  EXPECT_THAT(log.Take(),
              ElementsAre("ZuHelperOSX.+[ExecuteCommand Run:argument:](): "
                          "Bad file handle from pipe"));
}

}  // namespace
}  // namespace zu
