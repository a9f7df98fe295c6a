// The watchers, each of which scores one side of the host's state.

#include <atomic>

#include "ZuHelper.h"
#include "platform/task.h"
#include "watchdog/score.h"

namespace zu::watchdog {
namespace {

// The host has reported since the last cycle. Nothing is published with it, so
// the operations on it are relaxed.
constexpr uint32_t kAlive = 0x40;
constinit std::atomic<uint32_t> g_deadlock_alive{0};

constinit MemoryScore g_memory;
constinit DeadlockScore g_deadlock;
constinit CpuScore g_cpu;

// Whether the host had reported before the call.
bool Report() {
  return (g_deadlock_alive.fetch_or(kAlive, std::memory_order_relaxed) &
          kAlive) != 0;
}
bool TakeReport() {
  return (g_deadlock_alive.fetch_and(~kAlive, std::memory_order_relaxed) &
          kAlive) != 0;
}

}  // namespace
}  // namespace zu::watchdog

uint8_t watchdog_keepalive(void) { return zu::watchdog::Report() ? 1 : 0; }

uint32_t watchdog_memoryuse(void) {
  return zu::watchdog::g_memory.Add(zu::platform::ReadMemoryUse());
}

uint32_t watchdog_deadlock(void) {
  return zu::watchdog::g_deadlock.Add(zu::watchdog::TakeReport());
}

uint32_t watchdog_cpuuse(void) {
  const uint64_t now = zu::platform::ReadMonotonicClock();
  return zu::watchdog::g_cpu.Add(zu::platform::ReadProcessTimes(), now,
                                 zu::platform::MonotonicClockRate());
}
