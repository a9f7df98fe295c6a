#include "platform/task.h"

#include <mach/mach.h>
#include <mach/mach_time.h>

#include "platform/macos/task_information.h"

namespace zu::platform {

std::optional<uint64_t> ReadMemoryUse() {
  task_vm_info_data_t info{};
  if (!ReadTask(TASK_VM_INFO, TASK_VM_INFO_COUNT, info)) return std::nullopt;
  return info.resident_size + info.compressed;
}

std::optional<ProcessTimes> ReadProcessTimes() {
  task_thread_times_info_data_t info{};
  if (!ReadTask(TASK_THREAD_TIMES_INFO, TASK_THREAD_TIMES_INFO_COUNT, info)) {
    return std::nullopt;
  }
  return ProcessTimes{
      .user_s = info.user_time.seconds,
      .user_us = info.user_time.microseconds,
      .system_s = info.system_time.seconds,
      .system_us = info.system_time.microseconds,
  };
}

uint64_t ReadMonotonicClock() { return ::mach_absolute_time(); }

ClockRate MonotonicClockRate() {
  mach_timebase_info_data_t rate{};
  ::mach_timebase_info(&rate);
  return {rate.numer, rate.denom};
}

}  // namespace zu::platform
