#include "platform/wake_up.h"

#include <mach/mach.h>
#include <mach/mach_time.h>
#include <mach/semaphore.h>

#include "platform/task.h"
#include "support/scoped_handle.h"

namespace zu::platform {
namespace {

constexpr uint64_t kNanosecondsPerSecond = 1'000'000'000;

struct SemaphoreTraits {
  using Value = semaphore_t;
  static constexpr Value kNone = MACH_PORT_NULL;
  static void Close(Value semaphore) noexcept {
    ::semaphore_destroy(::mach_task_self(), semaphore);
  }
};

// The kernel's own, because POSIX's cannot be waited for with a deadline here
// and a condition variable's deadline follows the wall clock.
constinit semaphore_t g_calls = MACH_PORT_NULL;

}  // namespace

bool CreateWakeUp() {
  return ::semaphore_create(::mach_task_self(), &g_calls, SYNC_POLICY_FIFO,
                            0) == KERN_SUCCESS;
}

void DestroyWakeUp() {
  const ScopedHandle<SemaphoreTraits> calls(g_calls);
  g_calls = MACH_PORT_NULL;
}

int32_t WakeUp() { return ::semaphore_signal(g_calls); }

bool SleepUntil(uint64_t deadline_s) {
  const ClockRate rate = MonotonicClockRate();
  const uint64_t now_ns =
      ReadMonotonicClock() * rate.numerator / rate.denominator;
  const uint64_t deadline_ns = deadline_s * kNanosecondsPerSecond;
  const uint64_t left_ns = deadline_ns > now_ns ? deadline_ns - now_ns : 0;
  const mach_timespec_t timeout = {
      static_cast<unsigned int>(left_ns / kNanosecondsPerSecond),
      static_cast<clock_res_t>(left_ns % kNanosecondsPerSecond)};
  return ::semaphore_timedwait(g_calls, timeout) != KERN_OPERATION_TIMED_OUT;
}

}  // namespace zu::platform
