// What the kernel tells of the calling task.
#ifndef ZU_PLATFORM_MACOS_TASK_INFORMATION_H_
#define ZU_PLATFORM_MACOS_TASK_INFORMATION_H_

#include <mach/mach.h>

namespace zu::platform {

// `record` is the structure that `flavor` stands for, of `count` words.
template <typename Record>
bool ReadTask(task_flavor_t flavor, mach_msg_type_number_t count,
              Record& record) {
  return ::task_info(::mach_task_self(), flavor,
                     reinterpret_cast<task_info_t>(&record),
                     &count) == KERN_SUCCESS;
}

}  // namespace zu::platform

#endif  // ZU_PLATFORM_MACOS_TASK_INFORMATION_H_
