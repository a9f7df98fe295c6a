// The watchdog with sleeps that end at once, and the mark of a running
// instance.

#include <pthread.h>
#include <semaphore.h>
#include <sys/mount.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "build_values.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_tool.h"
#include "tests/support/loaded_library.h"
#include "tests/support/process_state.h"
#include "tests/support/system_log.h"
#include "tests/support/test_root.h"
#include "tests/support/wait_until.h"

namespace {

using zu::test::Arguments;
using zu::test::ChildScenario;
using zu::test::CountThreads;
using zu::test::LoadedLibrary;
using zu::test::WaitUntil;

constexpr char kStatus[] = "/tmp/status";
constexpr char kMark[] = "/dev/shm/sem." ZU_SEMAPHORE_NAME;

// One letter for what happens in each of the watchdog's sleeps; nothing more
// does when it is through.
std::string g_script;
std::atomic<LoadedLibrary*> g_library{nullptr};  // Once it is loaded.
std::atomic<bool> g_unload{false};
std::atomic<int> g_sleeps{0};

// The child's output is a record of what the watchdog did.
void Record(char what) { std::ignore = ::write(STDOUT_FILENO, &what, 1); }

void SetMemory(const std::string& resident_kb) {
  // A list of groups may be long.
  zu::test::WriteFile(kStatus, "Groups:\t" + std::string(9000, '7') + "\n" +
                                   resident_kb + "VmSwap:\t       1 kB\n");
}

void Happens(char event, sem_t* calls) {
  const LoadedLibrary& library = *g_library;
  switch (event) {
    case 'k':
      EXPECT_EQ(ZU_FIND(library, ZuDeadLockWatch)(), 0);
      EXPECT_NE(ZU_FIND(library, ZuDeadLockWatch)(), 0);
      break;
    case 'M':  // One more than it may be, with the swap.
      SetMemory("VmRSS:\t 1310720 kB\n");
      break;
    case 's':
      EXPECT_EQ(ZU_FIND(library, ZuDeadLockStop)(), 0u);
      break;
    case 'd':
      EXPECT_EQ(ZU_FIND(library, ZuDeadLockDisable)(), 0u);
      break;
    case 'u':  // Comes before the sleep begins, and must not be lost.
      g_unload = true;
      EXPECT_TRUE(WaitUntil([=] {
        int count = 0;
        return ::sem_getvalue(calls, &count) == 0 && count > 0;
      }));
  }
}

}  // namespace

extern "C" {
#pragma GCC visibility push(default)

int sem_clockwait(sem_t* calls, clockid_t clock, const timespec* deadline) {
  // The clock may have come to the next second since the deadline was made.
  static const std::map<int64_t, char> kLengths = {
      {30, '.'}, {29, '.'}, {15, 'f'}, {14, 'f'}};
  g_library.wait(nullptr);
  timespec now;
  ::clock_gettime(clock, &now);
  Record(kLengths.at(deadline->tv_sec - now.tv_sec));
  const char event = g_script.empty() ? '.' : g_script.front();
  g_script.erase(0, 1);
  Happens(event, calls);
  ++g_sleeps;
  if (::sem_trywait(calls) == 0) return 0;
  errno = ETIMEDOUT;
  return -1;
}

#pragma GCC visibility pop
}

namespace {

// Lets the watchdog sleep, until its thread has ended or is to be unloaded.
void RunScript(LoadedLibrary& library, size_t host_threads) {
  g_library = &library;
  g_library.notify_all();
  EXPECT_TRUE(
      WaitUntil([=] { return g_unload || CountThreads() == host_threads; }));
  std::ignore = g_sleeps.load();  // Orders what comes after it behind them.
}

// The second argument says what is special about the host.
const ChildScenario kWatched("Watched", [](const Arguments& arguments) {
  g_script = arguments[0];
  SetMemory("VmRSS:\t 1000 kB\n");
  EXPECT_EQ(::mount(kStatus, "/proc/self/status", "", MS_BIND, ""), 0);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  if (arguments[1] == "blocks") sigaddset(&blocked, SIGHUP);
  ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);

  const size_t threads = CountThreads();
  LoadedLibrary library = zu::test::LoadLibrary();
  EXPECT_EQ(ZU_FIND(library, ZuOpenSemaphore)(), 0u);
  if (arguments[1] == "handles") {
    std::signal(SIGHUP, [](int) { Record('H'); });
    std::signal(SIGTERM, [](int) { Record('T'); });
  }
  // One that the host waits for; no thread of ours is to take it.
  ::kill(::getpid(), SIGUSR1);
  RunScript(library, threads);
  library.reset();
  EXPECT_TRUE(WaitUntil([=] { return CountThreads() == threads; }));
  return 0;
});

const std::map<char, std::string> kLines = {
    {'0', "TERMINATION LEVEL 0 - process should be terminated"},
    {'1', "TERMINATION LEVEL 1 - process should be terminated"},
    {'2', "TERMINATION LEVEL 2 - process should be terminated"},
    {'f',
     "finalizer wait timed out - process should be terminated - TERMINATION "
     "LEVEL SIGKILL"}};

std::string Sleeps(size_t count) { return std::string(count, '.'); }

using WatchdogTest = zu::test::RootedTest;

TEST_F(WatchdogTest, InAProcessOfItsOwn) {
  const std::string alive(40, 'k');
  const struct {
    const char* name;
    std::string script;
    const char* host;
    int status;
    std::string record;
    const char* log;  // A letter a line.
  } rows[] = {{"hangs", "", "blocks", -SIGHUP, Sleeps(11), "0"},
              {"outlives", "", "handles", -SIGKILL, Sleeps(11) + "H.T.", "012"},
              {"recovers", "...........k............d", "handles", 0,
               Sleeps(11) + "H" + Sleeps(13) + "H.", "00"},
              {"grows", "M" + alive, "", -SIGHUP, Sleeps(22), "0"},
              {"stops twice", "ss", "", -SIGKILL, ".ff", "f"},
              {"stops and unloads", "su", "", 0, ".f", ""},
              {"stops and disables", "sd", "", 0, ".f", ""},
              {"disables", "d", "", 0, ".", ""},
              {"unloads", "u", "", 0, ".", ""}};
  zu::test::SystemLog log;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const zu::test::ChildResult result =
        zu::test::RunInChild(kWatched, {row.script, row.host});
    EXPECT_EQ(result.status, row.status);
    EXPECT_EQ(result.output, row.record);
    std::vector<std::string> lines;
    for (const char line : std::string_view(row.log)) {
      lines.push_back("ZuHelperOSX.WatchdogThread: " + kLines.at(line));
    }
    EXPECT_EQ(log.Take(), lines);
    std::filesystem::remove(kMark);
  }
}

// Takes the mark when the host ignores the first signal, then sends itself the
// others.
const ChildScenario kMarked("Marked", [](const Arguments& signals) {
  ::setsid();  // Nobody is there to continue it: then SIGTSTP does not stop.
  if (signals[0] != "0") std::signal(std::stoi(signals[0]), SIG_IGN);
  g_script = "d";
  const size_t threads = CountThreads();
  LoadedLibrary library = zu::test::LoadLibrary();
  RunScript(library, threads);
  const auto open = ZU_FIND(library, ZuOpenSemaphore);
  const auto unlink = ZU_FIND(library, ZuUnlinkSemaphore);
  EXPECT_EQ(unlink(), -1);
  EXPECT_EQ(open(), 0u);
  EXPECT_EQ(open(), static_cast<uint32_t>(EEXIST));
  EXPECT_EQ(unlink(), 0);
  EXPECT_EQ(open(), 0u);
  const volatile int32_t& in_progress =
      *ZU_FIND(library, fatal_error_in_progress);
  EXPECT_EQ(in_progress, 0);
  for (size_t i = 1; i < signals.size(); ++i) {
    ::kill(::getpid(), std::stoi(signals[i]));
    EXPECT_EQ(in_progress, std::filesystem::exists(kMark) ? 0 : 1);
  }
  (void)library.release();  // The exit handlers are to find it.
  return 0;
});

using MarkTest = zu::test::RootedTest;

TEST_F(MarkTest, GoesWithItsProcess) {
  // What is ignored, what is sent, and how that ends.
  const std::pair<std::vector<int>, int> rows[] = {
      {{0}, 0},
      {{SIGINT, SIGINT}, 0},
      {{SIGTSTP, SIGINT}, 0},
      {{0, SIGTSTP, SIGABRT}, -SIGABRT},
      {{0, SIGILL}, -SIGILL},
      {{0, SIGQUIT}, -SIGQUIT},
      {{0, SIGTERM}, -SIGTERM},
      {{0, SIGINT}, -SIGINT}};
  for (const auto& [sent, status] : rows) {
    Arguments signals;
    for (const int signal : sent) signals.push_back(std::to_string(signal));
    const auto result = zu::test::RunInChild(kMarked, signals);
    EXPECT_EQ(result.status, status) << testing::PrintToString(sent) << '\n'
                                     << result.output;
    EXPECT_FALSE(std::filesystem::exists(kMark));
  }
}

}  // namespace
