#include "platform/wake_up.h"

#include <semaphore.h>
#include <cerrno>
#include <ctime>

namespace zu::platform {
namespace {

// Unlike a condition variable it forgets no signal that comes too early, and
// signal handlers may post it.
sem_t g_calls;

}  // namespace

bool CreateWakeUp() { return ::sem_init(&g_calls, 0, 0) == 0; }

// It is memory and nothing else, and so takes calls that come late.
void DestroyWakeUp() {}

int32_t WakeUp() { return ::sem_post(&g_calls) == 0 ? 0 : errno; }

bool SleepUntil(uint64_t deadline_s) {
  timespec deadline{};
  deadline.tv_sec = static_cast<time_t>(deadline_s);
  return ::sem_clockwait(&g_calls, CLOCK_MONOTONIC, &deadline) == 0 ||
         errno != ETIMEDOUT;
}

}  // namespace zu::platform
