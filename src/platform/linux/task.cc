#include "platform/task.h"

#include <sys/resource.h>
#include <ctime>

#include "platform/linux/status_file.h"

namespace zu::platform {

std::optional<uint64_t> ReadMemoryUse() {
  StatusField fields[] = {{"VmRSS:"}, {"VmSwap:"}};
  ReadStatus(fields);
  const auto& [resident, swapped] = fields;
  if (!resident.bytes) return std::nullopt;
  // Kernels without swap tell none.
  return *resident.bytes + swapped.bytes.value_or(0);
}

std::optional<ProcessTimes> ReadProcessTimes() {
  rusage use{};
  if (::getrusage(RUSAGE_SELF, &use) != 0) return std::nullopt;
  return ProcessTimes{
      .user_s = static_cast<int32_t>(use.ru_utime.tv_sec),
      .user_us = static_cast<int32_t>(use.ru_utime.tv_usec),
      .system_s = static_cast<int32_t>(use.ru_stime.tv_sec),
      .system_us = static_cast<int32_t>(use.ru_stime.tv_usec),
  };
}

uint64_t ReadMonotonicClock() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 +
         static_cast<uint64_t>(now.tv_nsec);
}

ClockRate MonotonicClockRate() { return {}; }

}  // namespace zu::platform
