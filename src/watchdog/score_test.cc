#include "watchdog/score.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <ctime>
#include <random>
#include <vector>

namespace zu::watchdog {
namespace {

using platform::ProcessTimes;

// How many cycles in a row, up to now, were unhealthy.
uint32_t Tail(const std::vector<bool>& unhealthy) {
  const auto healthy = std::find(unhealthy.rbegin(), unhealthy.rend(), false);
  return static_cast<uint32_t>(healthy - unhealthy.rbegin());
}

// Whatever the history: only its unhealthy end counts.
TEST(ScoreTest, AnyHistory) {
  std::mt19937 random(20261123);
  const auto one_in = [&](uint32_t n) { return random() % n == 0; };
  for (uint32_t run = 2; run < 300; ++run) {
    MemoryScore memory;
    DeadlockScore deadlock;
    Escalation escalation;
    std::vector<bool> large, silent, over;
    for (int cycle = 0; cycle < 100; ++cycle) {
      silent.push_back(!one_in(run));
      EXPECT_EQ(deadlock.Add(!silent.back()), Tail(silent) * 10);
      if (one_in(run)) {
        EXPECT_EQ(memory.Add(std::nullopt), 0u);
      } else {
        large.push_back(!one_in(run));
        EXPECT_EQ(memory.Add(1342177280u + (large.back() ? 1 : 0)),
                  Tail(large) * 5);
      }
      over.push_back(!one_in(run));
      std::optional<uint32_t> level;
      if (Tail(over) > 2) level = std::min(Tail(over) - 3, 2u);
      ASSERT_EQ(escalation.Add(over.back() ? 100 : 99), level);
    }
  }
}

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

TEST(TaskTest, TellsWhatTheProcessUses) {
  const std::optional<ProcessTimes> times = platform::ReadProcessTimes();
  ASSERT_TRUE(times);
  EXPECT_NEAR(times->user_s + times->system_s +
                  (times->user_us + times->system_us) / 1e6,
              static_cast<double>(std::clock()) / CLOCKS_PER_SEC, 0.5);
}

}  // namespace
}  // namespace zu::watchdog
