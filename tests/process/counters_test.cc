// The counters on figures that are known: of the process itself, or laid in
// the kernel's place. Idle time with a login manager of the test's own.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <utmpx.h>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "support/file_descriptor.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_tool.h"
#include "tests/support/process_state.h"
#include "tests/support/system_log.h"
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
      {1'014'000, 30'900, 4'000, {14, 275, 250, 25}},
      {1'016'999, 32'000, 6'000, {16, 133, 66, 66}},
      {1'017'000, 33'000, 5'000, {17, 100'000, 100'000, 0}},  // Goes back.
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
  std::vector<FileDescriptor> files;
  for (const uint64_t count : {3, 903}) {  // More than one read tells.
    while (files.size() + 3 < count) files.emplace_back(::dup(STDIN_FILENO));
    EXPECT_EQ(Call(ZuGetOpenedFileAndSockCnnections, 2), Slots({count, 0}));
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    EXPECT_EQ(Call(ZuGetOpenedFileAndSockCnnections, 2), Slots());
  }
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
  WriteFile("/tmp/status", "Name:\tkernel thread\n");
  EXPECT_EQ(Call(ZuGetMemoryStatistics, 10), Slots());
  return 0;
});

using RootedCountersTest = zu::test::RootedTest;

TEST_F(RootedCountersTest, TellWhatTheProcessUses) {
  const zu::test::ChildResult result = zu::test::RunInChild(kCounts);
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST_F(RootedCountersTest, TellThreadsAndPressure) {
  const zu::test::SystemLog log;  // Has a thread.
  const std::pair<std::string, uint64_t> levels[] = {
      {"kern.memorystatus_vm_pressure_level: 4\\n", 4},
      {"", 0},
      {"2 of 4 (v1)\\n", 2},
      {"99999999999999999999\\n", INT64_MAX}};
  for (const auto& [output, level] : levels) {
    const zu::test::FakeTool tool(
        "/usr/sbin/sysctl",
        "[ \"$*\" = kern.memorystatus_vm_pressure_level ] && printf '" +
            output + "'");
    // The thread that waits for tools may be about to end.
    EXPECT_TRUE(zu::test::WaitUntil([expected = level] {
      const size_t count = zu::test::CountThreads();
      return Call(ZuGetMiscStatistics, 2) == Slots({count, expected});
    })) << output;
  }
}

// -------------------------------------------------------------------- idle --

// In the middle of what reads as `units` ago by the clock.
int64_t Ago_ns(clockid_t clock, int64_t units) {
  constexpr int64_t kUnit_ns = int64_t{1} << 30;
  timespec now{};
  ::clock_gettime(clock, &now);
  return now.tv_sec * 1'000'000'000 + now.tv_nsec - units * kUnit_ns -
         kUnit_ns / 2;
}

enum class Bus { kNone, kSilent, kRefuses, kBusy, kIdle };

// What the login manager says, where there is nothing else on the bus.
struct Manager {
  Bus kind;
  uint64_t since_us;
};

int Answer(sd_bus_message* call, void* context, sd_bus_error*) {
  const auto& [kind, since_us] = *static_cast<const Manager*>(context);
  if (sd_bus_message_is_method_call(call, "org.freedesktop.DBus", "Hello")) {
    return sd_bus_reply_method_return(call, "s", ":1.1");
  }
  const char *interface = "", *name = "";
  sd_bus_message_read(call, "ss", &interface, &name);
  const std::string property = std::string(interface) + ' ' + name;
  if (kind == Bus::kRefuses) return 0;
  if (property == "org.freedesktop.login1.Manager IdleHint") {
    return sd_bus_reply_method_return(call, "v", "b", kind == Bus::kIdle);
  }
  return property == "org.freedesktop.login1.Manager IdleSinceHintMonotonic"
             ? sd_bus_reply_method_return(call, "v", "t", since_us)
             : 0;
}

// One connection, until it ends.
void Serve(int listener, Manager manager) {
  const int client =
      ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  sd_bus* bus = nullptr;
  sd_bus_new(&bus);
  sd_bus_set_fd(bus, client, client);
  sd_bus_set_server(bus, 1, sd_id128_t{});
  sd_bus_add_filter(bus, nullptr, &Answer, &manager);
  sd_bus_start(bus);
  while (sd_bus_process(bus, nullptr) >= 0) sd_bus_wait(bus, 1'000'000);
  sd_bus_close_unref(bus);
}

// A terminal whose last access is that long ago.
struct Terminal {
  explicit Terminal(int64_t idle_units) {
    EXPECT_EQ(::unlockpt(device.get()), 0);
    const int64_t time_ns = Ago_ns(CLOCK_REALTIME, idle_units);
    const timespec access = {time_ns / 1'000'000'000, time_ns % 1'000'000'000};
    const timespec times[] = {access, access};
    EXPECT_EQ(::utimensat(AT_FDCWD, ::ptsname(device.get()), times, 0), 0);
  }
  std::string line() const { return ::ptsname(device.get()) + 5; }

  const FileDescriptor device{::open("/dev/ptmx", O_RDWR | O_NOCTTY)};
};

constexpr auto kNone = std::nullopt;
constexpr int64_t kLong = int64_t{1} << 32;  // Since before the machine was on.
const struct {
  const char* name;
  Bus bus;
  int64_t changed;  // Units since the hint did.
  // Of a terminal in the login records, and of a session's.
  std::optional<int64_t> login_idle, session_idle;
  uint64_t expected;
  const char* session_type = "tty";
} kIdleRows[] = {{"nothing known", Bus::kNone, 0, kNone, kNone, UINT64_MAX},
                 {"bus is silent", Bus::kSilent, 0, kNone, kNone, UINT64_MAX},
                 {"manager refuses", Bus::kRefuses, 0, 4, kNone, 4},
                 {"hint", Bus::kIdle, 9, 1, kNone, 9},
                 {"hint without sense", Bus::kIdle, kLong, 1, kNone, 0},
                 {"no hint, no terminals", Bus::kBusy, 9, kNone, kNone, 0},
                 {"no hint, two terminals", Bus::kBusy, 9, 12, 5, 5},
                 {"used since the terminals", Bus::kBusy, 4, 12, kNone, 4},
                 {"graphical session", Bus::kBusy, 9, 12, 5, 0, "wayland"},
                 {"terminal from the future", Bus::kNone, 0, -30, 7, 0}};

TEST_F(RootedCountersTest, TellHowLongNobodyWasThere) {
  for (const auto& row : kIdleRows) {
    // Nobody is logged in there, so it does not count, however fresh.
    const Terminal other(0);
    const Terminal login(row.login_idle.value_or(0));
    const Terminal session(row.session_idle.value_or(0));
    std::string logins;
    for (const auto& [type, line] :
         {std::pair(DEAD_PROCESS, other.line()),
          {USER_PROCESS, std::string(32, 'x')},
          {USER_PROCESS, row.login_idle ? login.line() : ":0"}}) {
      utmpx record{};
      record.ut_type = static_cast<short>(type);
      line.copy(record.ut_line, sizeof record.ut_line);
      logins.append(reinterpret_cast<const char*>(&record), sizeof record);
    }
    WriteFile("/run/utmp", logins);
    const std::string session_line = row.session_idle ? session.line() : "";
    for (const auto& [file, text] :
         {std::pair("1", "greeter\nSTATE=online\nTTY=" + other.line()),
          {"2", "user\nSTATE=closing\nTTY=" + other.line()},
          {"3", "user\nSTATE=active\nTTY=" + session_line +
                    "\nTYPE=" + row.session_type}}) {
      WriteFile(std::string("/run/systemd/sessions/") + file,
                "UID=0\nCLASS=" + text);
    }

    const sockaddr_un address{AF_UNIX, "/run/dbus/system_bus_socket"};
    std::filesystem::create_directories("/run/dbus");
    (void)std::filesystem::remove(address.sun_path);
    const FileDescriptor listener(::socket(AF_UNIX, SOCK_STREAM, 0));
    const auto* const name = reinterpret_cast<const sockaddr*>(&address);
    ASSERT_EQ(::bind(listener.get(), name, sizeof address), 0);
    if (row.bus > Bus::kNone) ::listen(listener.get(), 1);
    std::jthread server;
    if (row.bus > Bus::kSilent) {
      const int64_t since_ns = Ago_ns(CLOCK_MONOTONIC, row.changed);
      server = std::jthread(
          Serve, listener.get(),
          Manager{row.bus, static_cast<uint64_t>(since_ns / 1000)});
    }
    EXPECT_EQ(SystemIdleTime(), row.expected) << row.name;
    ::shutdown(listener.get(), SHUT_RDWR);  // Nobody may have come.
  }
}

}  // namespace
