#include "platform/task_memory.h"

#include <mach-o/dyld_images.h>
#include <mach/mach.h>
#include <mach/mach_vm.h>
#include <unistd.h>
#include <cstring>

#include "support/scoped_handle.h"

namespace zu::platform {
namespace {

// Memory that the kernel has put into this task.
struct Region {
  mach_vm_address_t address = 0;
  mach_vm_size_t size = 0;
  bool operator==(const Region&) const = default;
};
struct RegionTraits {
  using Value = Region;
  static constexpr Value kNone = {};
  static void Close(Value region) noexcept {
    ::mach_vm_deallocate(::mach_task_self(), region.address, region.size);
  }
};
using ScopedRegion = ScopedHandle<RegionTraits>;

constexpr int32_t kNoData = 5;

// The status of a reading that must give all of `length`.
int32_t StatusOf(const TaskMemory::Reading& reading, size_t length) {
  if (reading.data.empty()) return kNoData;
  if (reading.status != KERN_SUCCESS) return reading.status;
  return reading.data.size() < length ? kNoData : KERN_SUCCESS;
}

}  // namespace

int32_t GetTask(int32_t pid, uint32_t& task) {
  if (pid == ::getpid()) {
    task = ::mach_task_self();
    return KERN_SUCCESS;
  }
  return ::task_for_pid(::mach_task_self(), pid, &task);
}

struct TaskMemory::State {
  const mach_port_t task;
  ScopedRegion region;
};

TaskMemory::TaskMemory(uint32_t task) : state_(new State{task, {}}) {}
TaskMemory::~TaskMemory() = default;

TaskMemory::Reading TaskMemory::Read(uint64_t address, size_t length) {
  vm_offset_t data = 0;
  mach_msg_type_number_t count = 0;
  const kern_return_t status =
      ::mach_vm_read(state_->task, address, length, &data, &count);
  state_->region.reset(Region{data, count});
  return {status, {reinterpret_cast<const std::byte*>(data), count}};
}

size_t PageSize() { return vm_page_size; }

// Nothing is kept.
void TaskMemory::ReadAgain() {}

ImageList TaskMemory::ReadImageList() {
  static_assert(sizeof(dyld_image_info) == 24);
  task_dyld_info_data_t info{};
  mach_msg_type_number_t words = TASK_DYLD_INFO_COUNT;
  if (const kern_return_t status =
          ::task_info(state_->task, TASK_DYLD_INFO,
                      reinterpret_cast<task_info_t>(&info), &words);
      status != KERN_SUCCESS) {
    return {.status = status};
  }

  uint32_t count = 0;
  uint64_t records = 0;
  constexpr size_t kCountAt = offsetof(dyld_all_image_infos, infoArrayCount);
  constexpr size_t kRecordsAt = offsetof(dyld_all_image_infos, infoArray);
  auto reading = Read(info.all_image_info_addr, info.all_image_info_size);
  if (const int32_t status = StatusOf(reading, kRecordsAt + sizeof records);
      status != KERN_SUCCESS) {
    return {.status = status};
  }
  std::memcpy(&count, &reading.data[kCountAt], sizeof count);
  std::memcpy(&records, &reading.data[kRecordsAt], sizeof records);
  // The loader takes the records away while it is at work on them.
  if (records == 0) return {.status = kNoData, .changing = true};
  if (count > kMaxImages) return {.status = kNoData};

  const size_t size = count * sizeof(dyld_image_info);
  reading = Read(records, size);
  if (const int32_t status = StatusOf(reading, size); status != KERN_SUCCESS) {
    return {.status = status, .changing = true};
  }
  ImageList list;
  for (size_t at = 0; at < size; at += sizeof(dyld_image_info)) {
    uint64_t path = 0;
    std::memcpy(&path,
                &reading.data[at + offsetof(dyld_image_info, imageFilePath)],
                sizeof path);
    list.images.push_back({records + at, path});
  }
  return list;
}

}  // namespace zu::platform
