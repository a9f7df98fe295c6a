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

struct OutcomeCase {
  const char* name;
  void (*prepare)();  // Lays out the tool.
  Output output;
  const char* reason;  // In the log; null when nothing is logged.
  std::vector<std::string> arguments = {};
  const char* path = kTool;
};

class RunnerOutcome : public RunnerTest,
                      public ::testing::WithParamInterface<OutcomeCase> {};

TEST_P(RunnerOutcome, IsTheOutputOrNothing) {
  const OutcomeCase& c = GetParam();
  c.prepare();
  EXPECT_EQ(ExecuteCommand::Run(c.path, c.arguments), c.output);
  if (c.reason == nullptr) {
    EXPECT_THAT(log_.Take(), IsEmpty());
  } else {
    EXPECT_THAT(log_.Take(), ElementsAre(ExceptionLine(c.path, c.reason)));
  }
  EXPECT_TRUE(WaitUntil([] { return !HasChildren(); }));
}

constexpr char kNoAccess[] = "launch path not accessible";
#define ZU_SCRIPT(text) [] { WriteFile(kTool, "#!/bin/sh\n" text, 0755); }

INSTANTIATE_TEST_SUITE_P(
    Table, RunnerOutcome,
    ::testing::Values(
        OutcomeCase{"Missing", [] {}, {}, kNoAccess},
        OutcomeCase{"Directory",
                    [] { std::filesystem::create_directories(kTool); },
                    {},
                    kNoAccess},
        OutcomeCase{"NotExecutable",
                    [] { WriteFile(kTool, "#!/bin/sh\necho no\n", 0644); },
                    {},
                    kNoAccess},
        OutcomeCase{"Relative",
                    [] { std::filesystem::current_path("/bin"); },
                    {},
                    kNoAccess,
                    {},
                    "./true"},
        OutcomeCase{"NoExecFormat",
                    [] { WriteFile(kTool, "echo no\n", 0755); },
                    {},
                    "Couldn't posix_spawn: error 8"},
        OutcomeCase{"NoInterpreter",
                    [] { WriteFile(kTool, "#!/nowhere\n", 0755); },
                    {},
                    "Couldn't posix_spawn: error 2"},
        OutcomeCase{"Silent", ZU_SCRIPT("exit 0"), "", nullptr},
        OutcomeCase{"OnlyOnStderr", ZU_SCRIPT("echo no >&2"), "", nullptr},
        OutcomeCase{"FailsButSpeaks", ZU_SCRIPT("echo yes; exit 9"), "yes\n",
                    nullptr},
        OutcomeCase{"KilledAfterSpeaking", ZU_SCRIPT("echo yes; kill -9 $$"),
                    "yes\n", nullptr},
        OutcomeCase{"NotUtf8", ZU_SCRIPT("printf 'fine\\303'"), {}, nullptr},
        OutcomeCase{"EmbeddedNul", ZU_SCRIPT("printf 'a\\000\\303\\251'"),
                    "a\0\xC3\xA9"s, nullptr},
        OutcomeCase{"Arguments",
                    ZU_SCRIPT("printf '<%s>' \"$@\""),
                    "<|><a b><><$HOME;`id`>",
                    nullptr,
                    {"|", "a b", "", "$HOME;`id`"}},
        OutcomeCase{"Megabytes",
                    ZU_SCRIPT("head -c 3000001 /dev/zero | tr '\\000' x"),
                    std::string(3000001, 'x'), nullptr},
        OutcomeCase{"ProgramName",
                    [] {},
                    "/bin/cat\0/proc/self/cmdline\0"s,
                    nullptr,
                    {"/proc/self/cmdline"},
                    "/bin/cat"}),
    [](const auto& row) { return std::string(row.param.name); });

// The host blocks every signal and ignores SIGPIPE; its tool must not notice.
TEST_F(RunnerTest, ChildStartsWithCleanSignals) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  ::signal(SIGPIPE, SIG_IGN);
  const Output status = ExecuteCommand::Run("/bin/cat", {"/proc/self/status"});
  ::signal(SIGPIPE, SIG_DFL);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  ASSERT_TRUE(status);
  EXPECT_THAT(*status, ::testing::HasSubstr("SigBlk:\t0000000000000000\n"));
  const size_t ignored = status->find("SigIgn:\t");
  ASSERT_NE(ignored, status->npos);
  const uint64_t mask = std::stoull(status->substr(ignored + 8, 16), {}, 16);
  EXPECT_EQ(mask >> (SIGPIPE - 1) & 1, 0u);
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
// their own. Each scenario's argument names the descriptors that it closes.
const test::ChildScenario kWithClosedDescriptors(
    "WithClosedDescriptors", [](const test::Arguments& arguments) {
      for (const std::string& descriptor : arguments) {
        ::close(std::stoi(descriptor));
      }
      const Output output = ExecuteCommand::Run("/bin/echo", {"heard"});
      return output == "heard\n" ? 0 : !output ? 3 : 4;
    });

TEST_F(RunnerTest, HostWithClosedDescriptors) {
  struct Case {
    test::Arguments closed;
    int status;
  };
  for (const Case& c :
       {Case{{"1"}, 0}, Case{{"2"}, 0}, Case{{"1", "2"}, 0}, Case{{"0"}, 3},
        Case{{"0", "1"}, 3}, Case{{"0", "1", "2"}, 3}}) {
    SCOPED_TRACE(::testing::PrintToString(c.closed));
    EXPECT_EQ(test::RunInChild(kWithClosedDescriptors, c.closed).status,
              c.status);
    if (c.status == 0) {
      EXPECT_THAT(log_.Take(), IsEmpty());
    } else {
      EXPECT_THAT(log_.Take(),
                  ElementsAre("ZuHelperOSX.+[ExecuteCommand Run:argument:](): "
                              "Bad file handle from pipe"));
    }
  }
}

const test::ChildScenario kIgnoresChildren(
    "IgnoresChildren", [](const test::Arguments&) {
      const size_t threads = CountThreads();
      ::signal(SIGCHLD, SIG_IGN);
      for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(ExecuteCommand::Run("/bin/echo", {"heard"}), "heard\n");
      }
      EXPECT_TRUE(WaitUntil(
          [=] { return !HasChildren() && CountThreads() == threads; }));
      return 0;
    });

// The host's own child ends only after the tools, so the thief never runs dry.
const test::ChildScenario kReapsEverything(
    "ReapsEverything", [](const test::Arguments&) {
      const size_t threads = CountThreads();
      int ends[2];
      EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
      if (::fork() == 0) {
        char end;
        ::close(ends[1]);
        ::_exit(::read(ends[0], &end, 1) == 0 ? 0 : 1);
      }
      std::thread thief([] {
        while (::waitpid(-1, nullptr, 0) > 0) {
        }
      });
      for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(ExecuteCommand::Run("/bin/echo", {"heard"}), "heard\n");
      }
      ::close(ends[1]);
      thief.join();
      EXPECT_TRUE(WaitUntil(
          [=] { return !HasChildren() && CountThreads() == threads; }));
      return 0;
    });

TEST_F(RunnerTest, HostThatReapsChildrenItself) {
  for (const auto* scenario : {&kIgnoresChildren, &kReapsEverything}) {
    const test::ChildResult result = test::RunInChild(*scenario);
    EXPECT_EQ(result.status, 0) << scenario->name << result.output;
  }
}

}  // namespace
}  // namespace zu
