#include "support/execute_command.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
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
using test::IsOurChild;
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

// The system reaps the host's children and all signals are blocked; in the end
// a standard descriptor is closed too.
const test::ChildScenario kOddHost("OddHost", [](const test::Arguments&) {
  test::SystemLog log;
  ::signal(SIGCHLD, SIG_IGN);
  ::signal(SIGPIPE, SIG_IGN);
  sigset_t all;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
  // Nothing is blocked, and the bits of SIGCHLD and SIGPIPE are clear.
  EXPECT_EQ(ExecuteCommand::Run(
                "/bin/grep",
                {"-c", "^SigBlk:.0*$\\|^SigIgn:.*[02468ace][02468ace]...$",
                 "/proc/self/status"}),
            "2\n");
  EXPECT_TRUE(WaitUntil([] { return !HasChildren(); }));
  ::close(STDIN_FILENO);
  EXPECT_EQ(ExecuteCommand::Run("/bin/true", {}), std::nullopt);
  EXPECT_THAT(log.Take(),
              ElementsAre("ZuHelperOSX.+[ExecuteCommand Run:argument:](): "
                          "Bad file handle from pipe"));
  return 0;
});

// ------------------------------------------------------------- reaper --

// A child that lives until it is killed, and is to be reaped then.
pid_t PendingChild() {
  const pid_t child = ::fork();
  while (child == 0) ::pause();
  ReapWhenItEnds(child);
  return child;
}

bool IsReapedAfterKill(pid_t child) {
  ::kill(child, SIGKILL);
  return WaitUntil([child] { return !IsOurChild(child); });
}

// The thread lives while there is something to reap, and a forked child has one
// of its own; stopping it leaves children, and no call makes another one then.
const test::ChildScenario kLife("Life", [](const test::Arguments&) {
  const size_t before = CountThreads();
  for (int round = 0; round < 2; ++round) {
    const pid_t children[] = {PendingChild(), PendingChild()};
    EXPECT_EQ(CountThreads(), before + 1);
    const pid_t forked = ::fork();
    if (forked == 0) {
      // A new thread must not get the place of the parent's, which the thread
      // sanitizer takes for still running.
      pthread_attr_t attributes;
      ::pthread_getattr_default_np(&attributes);
      ::pthread_attr_setstacksize(&attributes, size_t{1} << 24);
      ::pthread_setattr_default_np(&attributes);
      ::_exit(IsReapedAfterKill(PendingChild()) ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(forked, &status, 0), forked);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(IsReapedAfterKill(children[1]));
    EXPECT_TRUE(IsReapedAfterKill(children[0]));
    EXPECT_TRUE(WaitUntil([=] { return CountThreads() == before; }));
  }
  const pid_t left = PendingChild();
  StopChildReaper();
  EXPECT_TRUE(WaitUntil([=] { return CountThreads() == before; }));
  EXPECT_TRUE(IsOurChild(left));
  StopChildReaper();
  ReapWhenItEnds(left);
  EXPECT_EQ(CountThreads(), before);
  ::kill(left, SIGKILL);
  return 0;
});

// Each starts with a reaper that was never used.
TEST_F(RunnerTest, InAProcessOfItsOwn) {
  for (const auto* scenario : {&kOddHost, &kLife}) {
    const test::ChildResult result = test::RunInChild(*scenario);
    EXPECT_EQ(result.status, 0) << scenario->name << '\n' << result.output;
  }
}

}  // namespace
}  // namespace zu
