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
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <latch>
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
#include "tests/support/test_root.h"

namespace {

using zu::FileDescriptor;
using zu::test::ChildScenario;
using zu::test::WriteFile;

// The monotonic clock, when it does not move by itself, and the process's use.
std::atomic<int64_t> g_clock_ms{0};
std::atomic<bool> g_fake_use{false};
rusage g_use{};

}  // namespace

extern "C" {
#pragma GCC visibility push(default)

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const int64_t fake_ms = g_clock_ms;
  if (clock != CLOCK_MONOTONIC || fake_ms == 0) {
    return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
  }
  *time = {fake_ms / 1000, fake_ms % 1000 * 1'000'000};
  return 0;
}

int getrusage(__rusage_who_t who, rusage* use) noexcept {
  if (!g_fake_use) return static_cast<int>(::syscall(SYS_getrusage, who, use));
  *use = g_use;
  return 0;
}

#pragma GCC visibility pop
}

namespace {

constexpr uint64_t kUntouched = 0x5A5A;
using Slots = std::vector<uint64_t>;

// What the function writes into `size` slots, all of which are its to use;
// empty when it fails and has written nothing, as it has to.
using Counter = uint8_t (*)(uint64_t*, uint32_t);
Slots Call(Counter counter, uint32_t size) {
  Slots slots(size + 1, kUntouched);
  const bool told = counter(slots.data(), size) != 0;
  EXPECT_EQ(slots.back(), kUntouched);
  slots.pop_back();
  if (told) return slots;
  EXPECT_EQ(slots, Slots(size, kUntouched));
  return {};
}

TEST(CountersTest, NeedAllTheirSlots) {
  const std::pair<Counter, uint32_t> counters[] = {
      {ZuGetCPUsages, 5},
      {ZuGetMemoryStatistics, 10},
      {ZuGetMachEventStatistics, 7},
      {ZuGetOpenedFileAndSockCnnections, 2},
      {ZuGetMiscStatistics, 2}};
  for (const auto& [counter, slots] : counters) {
    EXPECT_EQ(Call(counter, slots - 1), Slots());
    EXPECT_EQ(counter(nullptr, slots), 0);
  }
}

void ExpectProcessorUse() {
  const auto processors =
      static_cast<uint64_t>(::sysconf(_SC_NPROCESSORS_ONLN));
  bool initialized = false;
  g_fake_use = true;
  static const struct {
    int64_t clock_ms, user_ms, system_ms;
    Slots rest;
  } kCalls[] = {
      {1'000'000, 8'100, 3'000, {0, 0, 0, 0}},  // Before the baseline is set.
      {1'010'000, 9'000, 3'999, {10, 10, 10, 0}},
      {1'010'000, 20'000, 3'999, {10, 0, 0, 0}},  // Without time in between.
      {1'014'000, 30'900, 4'000, {14, 275, 250, 25}},
      {1'016'999, 32'000, 6'000, {16, 133, 66, 66}},
      {1'017'999, 32'999, 6'999, {17, 0, 0, 0}},
      {1'018'000, 33'000, 5'000, {18, 100'000, 100'000, 0}},  // Goes back.
  };
  for (const auto& call : kCalls) {
    g_clock_ms = call.clock_ms;
    g_use.ru_utime = {call.user_ms / 1000, call.user_ms % 1000 * 1000};
    g_use.ru_stime = {call.system_ms / 1000, call.system_ms % 1000 * 1000};
    Slots expected = {initialized ? processors : 0};
    expected.insert(expected.end(), call.rest.begin(), call.rest.end());
    EXPECT_EQ(Call(ZuGetCPUsages, 5), expected) << call.clock_ms;
    if (!initialized) ZuInitializePeroformanceCounters();
    initialized = true;
  }
}

void ExpectEvents() {
  constexpr uint64_t kRest = kUntouched;
  g_use.ru_minflt = 100;
  g_use.ru_majflt = 7;
  EXPECT_EQ(Call(ZuGetMachEventStatistics, 7),
            Slots({107, 0, 0, 0, 7, kRest, kRest}));
  g_use.ru_minflt = 150;
  g_use.ru_majflt = 9;
  EXPECT_EQ(Call(ZuGetMachEventStatistics, 7),
            Slots({52, 0, 0, 0, 2, kRest, kRest}));
}

void ExpectMemory() {
  constexpr char kStatus[] = "/tmp/status";
  WriteFile(kStatus,
            "Name:\tVmRSS:\nVmPeak:\t 9 kB\nVmSize:\t     100 kB\n"
            "VmHWM:\t 30 kB\nVmRSS:\t 20 kB\nRssAnon:\t 11 kB\n"
            "RssFile:\t 9 kB\nVmSwap:\t 5 kB\nThreads:\t1\n");
  EXPECT_EQ(::mount(kStatus, "/proc/self/status", "", MS_BIND, ""), 0);
  const Slots expected = {100, 20, 30, 11, 0, 5, 0, 0, 0, 0};
  EXPECT_EQ(Call(ZuGetMemoryStatistics, 10), expected);
  WriteFile(kStatus, "Name:\tkernel thread\n");
  EXPECT_EQ(Call(ZuGetMemoryStatistics, 10), Slots());
}

// With nothing open that comes from whoever runs the tests.
void ExpectDescriptors() {
  ::dup2(FileDescriptor(::open("/dev/null", O_RDWR)).get(), STDIN_FILENO);
  ::syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0);
  std::vector<FileDescriptor> files;
  for (const uint64_t count : {3, 903}) {  // More than one read tells.
    while (files.size() + 3 < count) files.emplace_back(::dup(STDIN_FILENO));
    const Slots expected = {count, 0};
    EXPECT_EQ(Call(ZuGetOpenedFileAndSockCnnections, 2), expected);
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    EXPECT_EQ(Call(ZuGetOpenedFileAndSockCnnections, 2), Slots());
  }
}

const ChildScenario kCounts("Counts", [](const zu::test::Arguments&) {
  ExpectDescriptors();
  ExpectProcessorUse();
  ExpectEvents();
  ExpectMemory();
  return 0;
});

using RootedCountersTest = zu::test::RootedTest;

TEST_F(RootedCountersTest, TellWhatTheProcessUses) {
  const zu::test::ChildResult result = zu::test::RunInChild(kCounts);
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST_F(RootedCountersTest, TellThreadsAndPressure) {
  const std::pair<std::string, uint64_t> levels[] = {
      {"kern.memorystatus_vm_pressure_level: 4\\n", 4},
      {"", 0},
      {"unknown\\n", 0},
      {"2 of 4 (v1)\\n", 2},
      {"99999999999999999999\\n", INT64_MAX}};
  std::latch end(1);
  std::vector<std::jthread> threads;
  for (const auto& [output, level] : levels) {
    const zu::test::FakeTool tool(
        "/usr/sbin/sysctl",
        "[ \"$*\" = kern.memorystatus_vm_pressure_level ] && printf '" +
            output + "'");
    threads.emplace_back([&end] { end.wait(); });
    // The thread that waits for tools may be about to end.
    EXPECT_TRUE(zu::test::WaitUntil([expected = level] {
      const size_t count = zu::test::CountThreads();
      return Call(ZuGetMiscStatistics, 2) == Slots({count, expected});
    })) << output;
  }
  end.count_down();
}

// -------------------------------------------------------------------- idle --

constexpr int64_t kUnit_ns = int64_t{1} << 30;

int64_t Now_ns(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

// In the middle of what reads as `units` ago.
int64_t Ago_ns(clockid_t clock, int64_t units) {
  return Now_ns(clock) - units * kUnit_ns - kUnit_ns / 2;
}

enum class Bus { kNone, kSilent, kRefuses, kBusy, kIdle };

FileDescriptor ListenOnBus() {
  std::filesystem::create_directories("/run/dbus");
  const sockaddr_un address{AF_UNIX, "/run/dbus/system_bus_socket"};
  (void)std::filesystem::remove(address.sun_path);
  FileDescriptor listener(::socket(AF_UNIX, SOCK_STREAM, 0));
  EXPECT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address),
                   sizeof address),
            0);
  EXPECT_EQ(::listen(listener.get(), 1), 0);
  return listener;
}

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
  const char* interface = "";
  const char* name = "";
  sd_bus_message_read(call, "ss", &interface, &name);
  if (kind == Bus::kRefuses ||
      std::strcmp(interface, "org.freedesktop.login1.Manager") != 0) {
    return 0;
  }
  if (std::strcmp(name, "IdleHint") == 0) {
    return sd_bus_reply_method_return(call, "v", "b", kind == Bus::kIdle);
  }
  EXPECT_STREQ(name, "IdleSinceHintMonotonic");
  return sd_bus_reply_method_return(call, "v", "t", since_us);
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
class Terminal {
 public:
  explicit Terminal(int64_t idle_units)
      : device_(::open("/dev/ptmx", O_RDWR | O_NOCTTY)) {
    EXPECT_EQ(::unlockpt(device_.get()), 0);
    const int64_t time_ns = Ago_ns(CLOCK_REALTIME, idle_units);
    const timespec access = {time_ns / 1'000'000'000, time_ns % 1'000'000'000};
    const timespec times[] = {access, access};
    EXPECT_EQ(::utimensat(AT_FDCWD, ::ptsname(device_.get()), times, 0), 0);
  }
  std::string line() const { return ::ptsname(device_.get()) + 5; }

 private:
  FileDescriptor device_;
};

void WriteLogins(const std::vector<std::pair<short, std::string>>& logins) {
  std::string file;
  for (const auto& [type, line] : logins) {
    utmpx record{};
    record.ut_type = type;
    line.copy(record.ut_line, sizeof record.ut_line);
    file.append(reinterpret_cast<const char*>(&record), sizeof record);
  }
  WriteFile("/run/utmp", file);
}

void WriteSession(const std::string& name, const std::string& kind,
                  const std::string& state, const std::string& line) {
  WriteFile("/run/systemd/sessions/" + name,
            "UID=0\nCLASS=" + kind + "\nSTATE=" + state + "\nTTY=" + line);
}

struct IdleCase {
  const char* name;
  Bus bus;
  int64_t changed;  // Units since the hint did.
  // Of a terminal in the login records, and of a session's.
  std::optional<int64_t> login_idle, session_idle;
  uint64_t expected;
};

class IdleTest : public zu::test::RootedTest,
                 public ::testing::WithParamInterface<IdleCase> {};

TEST_P(IdleTest, SystemIdleTime) {
  const IdleCase& c = GetParam();
  // Nobody is logged in there, so it does not count, however fresh.
  const Terminal other(0);
  const Terminal login(c.login_idle.value_or(0));
  const Terminal session(c.session_idle.value_or(0));
  WriteLogins({{DEAD_PROCESS, other.line()},
               {USER_PROCESS, std::string(32, 'x')},
               {USER_PROCESS, c.login_idle ? login.line() : ":0"}});
  WriteSession("1", "greeter", "online", other.line());
  WriteSession("2", "user", "closing", other.line());
  WriteSession("3", "user", "active", c.session_idle ? session.line() : "");
  const auto since_us =
      static_cast<uint64_t>(Ago_ns(CLOCK_MONOTONIC, c.changed) / 1000);
  FileDescriptor listener;
  std::jthread server;
  if (c.bus != Bus::kNone) listener = ListenOnBus();
  if (c.bus > Bus::kSilent) {
    server = std::jthread(Serve, listener.get(), Manager{c.bus, since_us});
  }
  const int64_t start_ns = Now_ns(CLOCK_MONOTONIC);
  EXPECT_EQ(SystemIdleTime(), c.expected);
  EXPECT_LT(Now_ns(CLOCK_MONOTONIC) - start_ns, 4'000'000'000);
  ::shutdown(listener.get(), SHUT_RDWR);  // Nobody may have come.
}

constexpr auto kNone = std::nullopt;
constexpr int64_t kLong = int64_t{1} << 32;  // Since before the machine was on.
INSTANTIATE_TEST_SUITE_P(
    Idle, IdleTest,
    ::testing::Values(
        IdleCase{"NothingKnown", Bus::kNone, 0, kNone, kNone, UINT64_MAX},
        IdleCase{"BusIsSilent", Bus::kSilent, 0, kNone, kNone, UINT64_MAX},
        IdleCase{"ManagerRefuses", Bus::kRefuses, 0, 4, kNone, 4},
        IdleCase{"Hint", Bus::kIdle, 9, 1, kNone, 9},
        IdleCase{"HintFromTheFuture", Bus::kIdle, -5, 1, kNone, 0},
        IdleCase{"HintWithoutSense", Bus::kIdle, kLong, 1, kNone, 0},
        IdleCase{"NoHintNoTerminals", Bus::kBusy, 9, kNone, kNone, 0},
        IdleCase{"NoHintTwoTerminals", Bus::kBusy, 9, 12, 5, 5},
        IdleCase{"TerminalOfALogin", Bus::kNone, 0, 12, kNone, 12},
        IdleCase{"TerminalFromTheFuture", Bus::kNone, 0, -30, 7, 0}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
