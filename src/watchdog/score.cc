#include "watchdog/score.h"

#include <algorithm>

namespace zu::watchdog {
namespace {

constexpr uint64_t kNanosecondsPerSecond = 1'000'000'000;

uint32_t Count(uint32_t& cycles, bool unhealthy) {
  return cycles = unhealthy ? cycles + 1 : 0;
}

// Unsigned, so that nothing overflows whatever the system says.
uint32_t SumOfSeconds(const platform::ProcessTimes& times) {
  return static_cast<uint32_t>(times.user_s) +
         static_cast<uint32_t>(times.system_s);
}

}  // namespace

uint32_t MemoryScore::Add(std::optional<uint64_t> bytes) {
  return bytes ? Count(cycles_, *bytes > kLimit) * 5 : 0;
}

uint32_t DeadlockScore::Add(bool alive) { return Count(cycles_, !alive) * 10; }

uint32_t CpuScore::Add(const std::optional<platform::ProcessTimes>& times,
                       uint64_t now, platform::ClockRate rate) {
  // Without time between two calls there is no share of it, either.
  if (!times || now == last_time_ || rate.numerator == 0) return 0;
  int32_t percent = 0;
  if (last_time_ != 0) {
    const uint32_t used_s = SumOfSeconds(*times) - SumOfSeconds(last_times_);
    const auto used_percent = static_cast<int32_t>(used_s * 100);
    percent = static_cast<int32_t>(static_cast<uint64_t>(used_percent) *
                                   rate.denominator * kNanosecondsPerSecond /
                                   rate.numerator / (now - last_time_));
  }
  last_time_ = now;
  last_times_ = *times;
  return Count(cycles_, percent > kLimit_percent) * 10;
}

std::optional<uint32_t> Escalation::Add(uint32_t score) {
  if (Count(cycles_, score >= kThreshold) < kPatience) return std::nullopt;
  return std::min(cycles_ - kPatience, kLastLevel);
}

}  // namespace zu::watchdog
