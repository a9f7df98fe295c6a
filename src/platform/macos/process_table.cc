#include "platform/process_table.h"

#include <sys/sysctl.h>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ZuHelper.h"
#include "support/allocated.h"

namespace zu::platform {
namespace {

static_assert(sizeof(kinfo_proc) == ZU_PROCESS_RECORD_SIZE);
static_assert(offsetof(kinfo_proc, kp_proc.p_pid) == ZU_PROCESS_RECORD_PID);
static_assert(offsetof(kinfo_proc, kp_eproc.e_ppid) ==
              ZU_PROCESS_RECORD_PARENT);

}  // namespace

// A table that grows between the two questions does not fit, and is unreadable.
TableResult CopyProcessRecords(void*& records, size_t& size) {
  int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_ALL};
  constexpr u_int kNameLength = std::size(name);
  if (::sysctl(name, kNameLength, nullptr, &size, nullptr, 0) != 0) {
    return TableResult::kUnreadable;
  }
  Allocated<void> block(std::malloc(size));
  if (block == nullptr) return TableResult::kNoMemory;
  if (::sysctl(name, kNameLength, block.get(), &size, nullptr, 0) != 0) {
    return TableResult::kUnreadable;
  }
  records = block.release();
  return TableResult::kRead;
}

TableResult ListProcessIds(std::span<int32_t> ids, size_t& total) {
  void* records = nullptr;
  size_t size = 0;
  const TableResult result = CopyProcessRecords(records, size);
  if (result != TableResult::kRead) return result;
  const Allocated<void> block(records);
  total = size / sizeof(kinfo_proc);
  const auto* record = static_cast<const kinfo_proc*>(records);
  for (int32_t& id : ids.first(std::min(ids.size(), total))) {
    id = (record++)->kp_proc.p_pid;
  }
  return TableResult::kRead;
}

}  // namespace zu::platform
