// What the system knows about the calling process.
#ifndef ZU_PLATFORM_TASK_H_
#define ZU_PLATFORM_TASK_H_

#include <cstdint>
#include <optional>

namespace zu::platform {

// Resident plus compressed (Linux: swapped) memory, in bytes. Absent when the
// system does not tell.
std::optional<uint64_t> ReadMemoryUse();

// User and system time of all threads, in seconds and microseconds. Absent
// when the system does not tell.
struct ProcessTimes {
  int32_t user_s = 0;
  int32_t user_us = 0;
  int32_t system_s = 0;
  int32_t system_us = 0;
};
std::optional<ProcessTimes> ReadProcessTimes();

// A monotonic clock in units of its own: a reading times numerator over
// denominator is nanoseconds.
struct ClockRate {
  uint32_t numerator = 1;
  uint32_t denominator = 1;
};
uint64_t ReadMonotonicClock();
ClockRate MonotonicClockRate();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_TASK_H_
