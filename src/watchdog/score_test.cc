#include "watchdog/score.h"

#include <gtest/gtest.h>

namespace zu::watchdog {
namespace {

using platform::ProcessTimes;

// A call that finds this much use after that much time, behind a first one.
TEST(ScoreTest, ProcessorTime) {
  constexpr uint64_t kSecond = 1'000'000'000;
  static const struct {
    const char* name;
    platform::ClockRate rate;
    uint64_t elapsed;
    ProcessTimes used;
    uint32_t score;
  } kCases[] = {
      {"at the limit", {1, 1}, 100 * kSecond, {40, 0, 50, 0}, 0},
      {"above it", {1, 1}, 100 * kSecond, {40, 0, 51, 0}, 10},
      {"microseconds", {1, 1}, 100 * kSecond, {40, 999999, 50, 999999}, 0},
      {"other units, above", {125, 3}, 2'400'000'000, {91, 0, 0, 0}, 10},
      {"no rate", {0, 1}, kSecond, {9, 0, 0, 0}, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    CpuScore cpu;
    EXPECT_EQ(cpu.Add(ProcessTimes{}, kSecond, {1, 1}), 0u);
    EXPECT_EQ(cpu.Add(std::nullopt, kSecond + 1, c.rate), 0u);
    EXPECT_EQ(cpu.Add(c.used, kSecond + c.elapsed, c.rate), c.score);
  }
}

}  // namespace
}  // namespace zu::watchdog
