#include "watchdog/watchdog.h"

#include <pthread.h>
#include <atomic>
#include <csignal>
#include <iterator>
#include <optional>

#include "ZuHelper.h"
#include "platform/task.h"
#include "platform/wake_up.h"
#include "support/log.h"
#include "support/signal_mask.h"
#include "watchdog/score.h"

namespace zu::watchdog {
namespace {

constexpr char kTag[] = "ZuHelperOSX.WatchdogThread";

constexpr uint64_t kCycle_s = 30;
constexpr uint64_t kExit_s = 15;      // For the host, once it has said so.
constexpr uint64_t kLastWords_s = 5;  // For a SIGKILL to take effect.

// The processor's is left out: hosts have reasons to be busy.
constexpr uint32_t (*kWatchers[])(void) = {watchdog_memoryuse,
                                           watchdog_deadlock};

constexpr int kTerminationSignals[] = {SIGHUP, SIGTERM, SIGKILL};
static_assert(std::size(kTerminationSignals) == Escalation::kLastLevel + 1);

// Set before the thread is woken, and read by it after each wake-up. There is
// no lock: whoever stops or leaves may do so in a signal handler, even in one
// that interrupted this thread.
constinit std::atomic<bool> g_stop_requested{false};
constinit std::atomic<bool> g_finalizer_called{false};
constinit std::atomic<bool> g_exit_expected{false};  // Only after a stop.

constinit std::optional<pthread_t> g_thread;
thread_local bool t_is_watchdog = false;

// Waits for `condition`, which a WakeUp follows; false when it does not hold in
// time. A deadline is a whole second, so the first one is cut short.
template <typename Condition>
bool WaitFor(uint64_t seconds, Condition condition) {
  const platform::ClockRate rate = platform::MonotonicClockRate();
  const uint64_t now_s = platform::ReadMonotonicClock() * rate.numerator /
                         rate.denominator / 1'000'000'000;
  while (!condition()) {
    if (!platform::SleepUntil(now_s + seconds)) return condition();
  }
  return true;
}

void Terminate(uint32_t level) {
  LogError("%s: TERMINATION LEVEL %d - process should be terminated", kTag,
           static_cast<int>(level));
  const int signal = kTerminationSignals[level];
  const SignalMask mask = SignalMask::Unblocked(signal);
  std::raise(signal);
}

// A store through a null pointer is undefined to the compiler, but not to the
// machine.
[[noreturn]] __attribute__((no_sanitize("undefined"))) void Crash() {
  volatile int* volatile nowhere = nullptr;
  *nowhere = 0;  // NOLINT(clang-analyzer-core.NullDereference)
  __builtin_trap();
}

// For a host that said it would exit and did not.
[[noreturn]] void Kill() {
  LogError(
      "%s: finalizer wait timed out - process should be terminated - "
      "TERMINATION LEVEL SIGKILL",
      kTag);
  std::raise(SIGKILL);
  WaitFor(kLastWords_s, [] { return false; });
  LogError("%s: SIGKILL did not terminate process - null access", kTag);
  Crash();
}

void* Watch(void* /*unused*/) {
  t_is_watchdog = true;
  const auto stop_requested = [] { return g_stop_requested.load(); };
  Escalation escalation;
  while (!stop_requested()) {
    uint32_t score = 0;
    for (const auto watcher : kWatchers) score += watcher();
    if (const auto level = escalation.Add(score)) Terminate(*level);
    WaitFor(kCycle_s, stop_requested);
  }
  const bool needs_no_exit =
      WaitFor(kExit_s, [] { return !g_exit_expected || g_finalizer_called; });
  if (!needs_no_exit) Kill();
  return nullptr;
}

uint32_t Stop(bool exit_expected) {
  g_exit_expected = exit_expected;
  g_stop_requested = true;
  return static_cast<uint32_t>(platform::WakeUp());
}

}  // namespace

// The thread blocks every signal, so that the host's handlers run on the host's
// threads, whatever mask the library was loaded under. The one that it raises
// is let through then.
void Initialize() {
  pthread_t thread{};
  const SignalMask mask = SignalMask::AllBlocked();
  if (platform::CreateWakeUp() &&
      ::pthread_create(&thread, nullptr, &Watch, nullptr) == 0) {
    g_thread = thread;
  } else {
    LogError("%s: Watcher thread creation failed", kTag);
  }
}

void Finalize() {
  g_stop_requested = true;
  g_finalizer_called = true;
  g_exit_expected = false;
  platform::WakeUp();
  if (t_is_watchdog) return;
  if (g_thread) ::pthread_join(*g_thread, nullptr);
  platform::DestroyWakeUp();
}

}  // namespace zu::watchdog

uint32_t watchdog_stop(void) { return zu::watchdog::Stop(true); }

uint32_t watchdog_disable(void) { return zu::watchdog::Stop(false); }
