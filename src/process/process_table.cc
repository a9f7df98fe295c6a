// The system's processes and how they descend from each other.

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <unordered_set>
#include <vector>

#include "ZuHelper.h"
#include "platform/process_table.h"
#include "support/allocated.h"
#include "support/guarded.h"

namespace zu::process {
namespace {

using platform::TableResult;

uint32_t ToStatus(TableResult result) {
  switch (result) {
    case TableResult::kRead:
      return ZU_PROCESS_OK;
    case TableResult::kUnreadable:
      return ZU_PROCESS_NO_TABLE;
    case TableResult::kNoMemory:
      break;
  }
  return ZU_PROCESS_NO_MEMORY;
}

struct Link {
  int32_t parent;
  int32_t pid;
};

// By parent and for each in the table's order, so that the whole table need not
// be searched for every process.
std::vector<Link> SortByParent(const std::byte* table, size_t table_count) {
  std::vector<Link> links(table_count);
  for (Link& link : links) {
    std::memcpy(&link.parent, table + ZU_PROCESS_RECORD_PARENT,
                sizeof link.parent);
    std::memcpy(&link.pid, table + ZU_PROCESS_RECORD_PID, sizeof link.pid);
    table += ZU_PROCESS_RECORD_SIZE;
  }
  std::stable_sort(
      links.begin(), links.end(),
      [](const Link& a, const Link& b) { return a.parent < b.parent; });
  return links;
}

void MarkDescendants(int32_t* found, std::span<const Link> links,
                     int32_t parent, int32_t& found_count) {
  std::unordered_set<int32_t> known(found, found + found_count);
  // The parts of `found` whose processes' own children come next, innermost
  // last. Not the call stack: a table may hold one long line of descent.
  struct Generation {
    int32_t next;
    int32_t end;
  };
  std::vector<Generation> pending;
  for (;;) {
    const int32_t first = found_count;
    for (auto link = std::lower_bound(
             links.begin(), links.end(), parent,
             [](const Link&a, int32_t value) { return a.parent < value; });
         link != links.end() && link->parent == parent; ++link) {
      if (known.insert(link->pid).second) found[found_count++] = link->pid;
    }
    if (first != found_count) pending.push_back({first, found_count});
    if (pending.empty()) return;
    Generation& youngest = pending.back();
    parent = found[youngest.next++];
    if (youngest.next == youngest.end) pending.pop_back();
  }
}

}  // namespace
}  // namespace zu::process

extern "C" {

uint32_t GetProcessesInfo(void** buffer, size_t* length) {
  return zu::Guarded(__func__, ZU_PROCESS_NO_MEMORY, [=] {
    return zu::process::ToStatus(
        zu::platform::CopyProcessRecords(*buffer, *length));
  });
}

uint32_t ListProcesses(int32_t* pids, int32_t* count) {
  return zu::Guarded(__func__, ZU_PROCESS_NO_MEMORY, [=] {
    const size_t capacity = static_cast<size_t>(std::max(*count, 0));
    size_t total = 0;
    const uint32_t status = zu::process::ToStatus(
        zu::platform::ListProcessIds({pids, capacity}, total));
    if (status == ZU_PROCESS_OK) *count = static_cast<int32_t>(total);
    return status;
  });
}

void _markChildProcesses(int32_t* found, const void* table, int32_t table_count,
                         int32_t parent, int32_t* found_count) {
  if (table_count < 1) return;
  zu::Guarded(__func__, [=] {
    const std::vector<zu::process::Link> links = zu::process::SortByParent(
        static_cast<const std::byte*>(table), static_cast<size_t>(table_count));
    zu::process::MarkDescendants(found, links, parent, *found_count);
  });
}

uint32_t ListChildProcesses(int32_t pid, int32_t* /*pids*/, int32_t* count) {
  void* records = nullptr;
  size_t length = 0;
  const uint32_t status = GetProcessesInfo(&records, &length);
  if (status != ZU_PROCESS_OK) return status;
  const zu::Allocated<void> table(records);
  const size_t table_count = length / ZU_PROCESS_RECORD_SIZE;
  const zu::Allocated<int32_t[]> found(
      static_cast<int32_t*>(std::calloc(table_count, sizeof(int32_t))));
  if (found == nullptr) return ZU_PROCESS_NO_DATA;
  int32_t found_count = 0;
  _markChildProcesses(found.get(), table.get(),
                      static_cast<int32_t>(table_count), pid, &found_count);
  *count = 0;  // Deliberate: hosts rely on there being none.
  return ZU_PROCESS_OK;
}

}  // extern "C"
