// What the watchdog makes of the host's state: no clock, no thread, one call a
// cycle. Cycles are counted and never elapsed time, so that a machine that
// sleeps for hours costs its processes one cycle at most.
#ifndef ZU_WATCHDOG_SCORE_H_
#define ZU_WATCHDOG_SCORE_H_

#include <cstdint>
#include <optional>

#include "platform/task.h"

namespace zu::watchdog {

// The scores are 0 for a healthy host, and grow with every cycle in a row in
// which it is not. A state that could not be read scores 0 and changes nothing.

class MemoryScore {
 public:
  static constexpr uint64_t kLimit = 1280 * 1024 * 1024;  // Still healthy.

  uint32_t Add(std::optional<uint64_t> bytes);

 private:
  uint32_t cycles_ = 0;
};

class DeadlockScore {
 public:
  // `alive`: the host has reported since the last cycle.
  uint32_t Add(bool alive);

 private:
  uint32_t cycles_ = 0;
};

// Scores the processor time since the last call, in per cent of one processor
// and from whole seconds only. The first call always scores 0.
class CpuScore {
 public:
  static constexpr int32_t kLimit_percent = 90;  // Still healthy.

  // `now` and `rate`: of the monotonic clock.
  uint32_t Add(const std::optional<platform::ProcessTimes>& times, uint64_t now,
               platform::ClockRate rate);

 private:
  uint64_t last_time_ = 0;
  platform::ProcessTimes last_times_;
  uint32_t cycles_ = 0;
};

// Turns the sum of the scores into steps of termination.
class Escalation {
 public:
  static constexpr uint32_t kThreshold = 100;  // Unhealthy from here on.
  static constexpr uint32_t kPatience = 3;     // Cycles up to the first step.
  static constexpr uint32_t kLastLevel = 2;

  // The level to terminate the host with in this cycle, if any: 0, then one
  // more in each further unhealthy cycle.
  std::optional<uint32_t> Add(uint32_t score);

 private:
  uint32_t cycles_ = 0;
};

}  // namespace zu::watchdog

#endif  // ZU_WATCHDOG_SCORE_H_
