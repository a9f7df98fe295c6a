// The counters on figures that are known: of the process itself, or laid in
// the kernel's place. Idle time where there is no login manager.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utmpx.h>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "support/file_descriptor.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_tool.h"
#include "tests/support/process_state.h"
#include "tests/support/test_root.h"

namespace {

using zu::FileDescriptor;
using zu::test::ChildScenario;
using zu::test::WriteFile;

// What is said of the monotonic clock, once that is not 0, and of the use.
int64_t g_clock_ms = 0;
std::optional<rusage> g_use;

}  // namespace

extern "C" {
#pragma GCC visibility push(default)

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  if (clock != CLOCK_MONOTONIC || g_clock_ms == 0) {
    return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
  }
  *time = {g_clock_ms / 1000, g_clock_ms % 1000 * 1'000'000};
  return 0;
}

int getrusage(__rusage_who_t who, rusage* use) noexcept {
  if (!g_use) return static_cast<int>(::syscall(SYS_getrusage, who, use));
  *use = *g_use;
  return 0;
}

#pragma GCC visibility pop
}

namespace {

constexpr uint64_t kUntouched = 0x5A5A;
using Slots = std::vector<uint64_t>;

// What the function writes into `size` slots, as many as it needs and all its
// to use; empty when it fails and has written nothing, as it has to.
using Counter = uint8_t (*)(uint64_t*, uint32_t);
Slots Call(Counter counter, uint32_t size) {
  Slots slots(size + 1, kUntouched);
  EXPECT_EQ(counter(nullptr, size), 0);
  EXPECT_EQ(counter(slots.data(), size - 1), 0);
  EXPECT_EQ(slots, Slots(size + 1, kUntouched));
  const bool told = counter(slots.data(), size) != 0;
  EXPECT_EQ(slots.back(), kUntouched);
  slots.pop_back();
  if (told) return slots;
  EXPECT_EQ(slots, Slots(size, kUntouched));
  return {};
}

void ExpectProcessorUse() {
  uint64_t processors = 0;
  static const struct {
    int64_t clock_ms, user_ms, system_ms;
    Slots rest;
  } kCalls[] = {
      {1'000'000, 8'100, 3'000, {1000, 1, 0, 0}},  // Since the clock's start.
      {1'010'000, 9'000, 3'999, {10, 10, 10, 0}},
      {1'010'000, 20'000, 3'999, {10, 0, 0, 0}},  // Without time in between.
      {1'013'999, 30'900, 4'000, {13, 275, 250, 25}},
      {1'014'000, 31'900, 3'000, {14, 100'000, 100'000, 0}},  // Goes back.
  };
  for (const auto& [clock_ms, user_ms, system_ms, rest] : kCalls) {
    g_clock_ms = clock_ms;
    g_use.emplace();
    g_use->ru_utime = {user_ms / 1000, user_ms % 1000 * 1000};
    g_use->ru_stime = {system_ms / 1000, system_ms % 1000 * 1000};
    Slots expected = rest;
    expected.insert(expected.begin(), processors);
    EXPECT_EQ(Call(ZuGetCPUsages, 5), expected) << clock_ms;
    if (processors == 0) ZuInitializePeroformanceCounters();
    processors = static_cast<uint64_t>(::sysconf(_SC_NPROCESSORS_ONLN));
  }
}

// With nothing open that comes from whoever runs the tests.
void ExpectDescriptors() {
  ::dup2(FileDescriptor(::open("/dev/null", O_RDWR)).get(), STDIN_FILENO);
  ::syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0);
  EXPECT_EQ(Call(ZuGetOpenedFileAndSockCnnections, 2), Slots({3, 0}));
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
  EXPECT_EQ(Call(ZuGetOpenedFileAndSockCnnections, 2), Slots());
}

const ChildScenario kCounts("Counts", [](const zu::test::Arguments&) {
  ExpectDescriptors();
  ExpectProcessorUse();

  constexpr int64_t kMany = int64_t{1} << 32;
  constexpr uint64_t kRest = kUntouched;
  g_use->ru_minflt = kMany + 100;
  g_use->ru_majflt = 7;
  EXPECT_EQ(Call(ZuGetMachEventStatistics, 7),
            Slots({kMany + 107, 0, 0, 0, 7, kRest, kRest}));
  g_use->ru_minflt = kMany + 150;
  g_use->ru_majflt = 9;
  EXPECT_EQ(Call(ZuGetMachEventStatistics, 7),
            Slots({52, 0, 0, 0, 2, kRest, kRest}));

  WriteFile("/tmp/status",
            "Name:\tVmRSS:\nVmPeak:\t 9 kB\nVmSize:\t     100 kB\n"
            "VmHWM:\t 30 kB\nVmRSS:\t 20 kB\nRssAnon:\t 11 kB\n"
            "RssFile:\t 9 kB\nVmSwap:\t 5 kB\nThreads:\t1\n");
  EXPECT_EQ(::mount("/tmp/status", "/proc/self/status", "", MS_BIND, ""), 0);
  EXPECT_EQ(Call(ZuGetMemoryStatistics, 10),
            Slots({100, 20, 30, 11, 0, 5, 0, 0, 0, 0}));
  return 0;
});

using RootedCountersTest = zu::test::RootedTest;

TEST_F(RootedCountersTest, TellWhatTheProcessUses) {
  const zu::test::ChildResult result = zu::test::RunInChild(kCounts);
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST_F(RootedCountersTest, TellThreadsAndPressure) {
  const zu::test::FakeTool tool(
      "/usr/sbin/sysctl",
      "[ \"$*\" = kern.memorystatus_vm_pressure_level ] && echo $*: 4");
  // The thread that waits for tools may be about to end.
  EXPECT_TRUE(zu::test::WaitUntil([] {
    return Call(ZuGetMiscStatistics, 2) == Slots({zu::test::CountThreads(), 4});
  }));
}

// -------------------------------------------------------------------- idle --

// A terminal whose last access is that long ago.
struct Terminal {
  explicit Terminal(int64_t idle_s) {
    EXPECT_EQ(::unlockpt(device.get()), 0);
    timespec access{};
    ::clock_gettime(CLOCK_REALTIME, &access);
    access.tv_sec -= idle_s;
    const timespec times[] = {access, access};
    EXPECT_EQ(::utimensat(AT_FDCWD, ::ptsname(device.get()), times, 0), 0);
  }
  std::string line() const { return ::ptsname(device.get()) + 5; }

  const FileDescriptor device{::open("/dev/ptmx", O_RDWR | O_NOCTTY)};
};

// Of the terminals that somebody uses, the one used last counts. The greeter's,
// which nobody does, is fresh. The answer is in units of 2^30 ns.
TEST_F(RootedCountersTest, TellHowLongNobodyWasThere) {
  const Terminal greeter(0), login(13), session(6), future(-30);
  const auto idle_with = [&](const Terminal& user) {
    utmpx record{};
    record.ut_type = USER_PROCESS;
    user.line().copy(record.ut_line, sizeof record.ut_line);
    WriteFile("/run/utmp",
              {reinterpret_cast<const char*>(&record), sizeof record});
    return SystemIdleTime();
  };
  EXPECT_EQ(SystemIdleTime(), UINT64_MAX);
  WriteFile("/run/systemd/sessions/1",
            "UID=0\nCLASS=greeter\nSTATE=online\nTTY=" + greeter.line());
  EXPECT_EQ(idle_with(login), 12u);
  WriteFile("/run/systemd/sessions/2",
            "UID=0\nCLASS=user\nSTATE=active\nTTY=" + session.line());
  EXPECT_EQ(idle_with(login), 5u);
  EXPECT_EQ(idle_with(future), 0u);
}

}  // namespace
