#include "platform/task.h"

#include <mach/mach.h>
#include <mach/mach_time.h>

namespace zu::platform {
namespace {

// `record` is the structure that `flavor` stands for, of `count` words.
template <typename Record>
bool ReadTask(task_flavor_t flavor, mach_msg_type_number_t count,
              Record& record) {
  return ::task_info(::mach_task_self(), flavor,
                     reinterpret_cast<task_info_t>(&record),
                     &count) == KERN_SUCCESS;
}

}  // namespace

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
