#include "platform/process_table.h"

#include <fcntl.h>
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ZuHelper.h"
#include "platform/linux/numbered_entries.h"
#include "support/allocated.h"
#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

// A growing block of records.
class Records {
 public:
  // False when memory is short.
  bool Append(int32_t pid, int32_t parent) {
    if (size_ == capacity_) {
      const size_t capacity =
          std::max(2 * capacity_, size_t{256} * ZU_PROCESS_RECORD_SIZE);
      void* const larger = std::realloc(block_.get(), capacity);
      if (larger == nullptr) return false;
      static_cast<void>(block_.release());
      block_.reset(static_cast<std::byte*>(larger));
      capacity_ = capacity;
    }
    std::byte* const record = block_.get() + size_;
    std::memset(record, 0, ZU_PROCESS_RECORD_SIZE);
    std::memcpy(record + ZU_PROCESS_RECORD_PID, &pid, sizeof pid);
    std::memcpy(record + ZU_PROCESS_RECORD_PARENT, &parent, sizeof parent);
    size_ += ZU_PROCESS_RECORD_SIZE;
    return true;
  }
  size_t size() const { return size_; }
  [[nodiscard]] void* release() { return block_.release(); }

 private:
  Allocated<std::byte> block_;
  size_t size_ = 0;  // Both in bytes.
  size_t capacity_ = 0;
};

FileDescriptor OpenTable() {
  return FileDescriptor(RetryOnInterrupt(
      [] { return ::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
}

// "PID (NAME) STATE PARENT ...". The name may itself hold anything, but what
// follows it is letters and numbers.
std::optional<int32_t> ParseParent(std::string_view stat) {
  const size_t name_end = stat.rfind(')');
  constexpr std::string_view kBetween = ") S ";
  if (name_end == stat.npos || stat.size() - name_end <= kBetween.size()) {
    return std::nullopt;
  }
  stat.remove_prefix(name_end + kBetween.size());
  int32_t parent = 0;
  const auto parsed =
      std::from_chars(stat.data(), stat.data() + stat.size(), parent);
  if (parsed.ec != std::errc()) return std::nullopt;
  return parent;
}

// 0 with the parent, or the error's number.
int ReadParent(int table, int32_t pid, int32_t& parent) {
  // With ten digits still no heap memory.
  const std::string path = std::to_string(pid) + "/stat";
  const FileDescriptor file(RetryOnInterrupt(
      [&] { return ::openat(table, path.c_str(), O_RDONLY | O_CLOEXEC); }));
  if (!file.valid()) return errno;
  char stat[256];  // The start of it: names have at most 64 bytes.
  const ssize_t size =
      RetryOnInterrupt([&] { return ::read(file.get(), stat, sizeof stat); });
  if (size < 0) return errno;
  const std::optional<int32_t> parsed =
      ParseParent({stat, static_cast<size_t>(size)});
  if (!parsed) return EIO;
  parent = *parsed;
  return 0;
}

}  // namespace

// The kernel goes through its processes by identifier, so they come in
// ascending order. There is always one, ourselves: an empty directory has
// nothing mounted on it.
TableResult CopyProcessRecords(void*& records, size_t& size) {
  const FileDescriptor table = OpenTable();
  Records block;
  TableResult result = TableResult::kRead;
  const bool whole = ForEachNumberedEntry(table.get(), [&](int32_t pid) {
    if (result != TableResult::kRead) return;
    int32_t parent = 0;
    const int error = ReadParent(table.get(), pid, parent);
    if (error == ENOENT || error == ESRCH) return;  // It has ended.
    // A mount option may hide all but the identifiers of others' processes.
    if (error != 0 && error != EPERM && error != EACCES) {
      result = TableResult::kUnreadable;
    } else if (!block.Append(pid, parent)) {
      result = TableResult::kNoMemory;
    }
  });
  if (result != TableResult::kRead) return result;
  if (!whole || block.size() == 0) return TableResult::kUnreadable;
  size = block.size();
  records = block.release();
  return TableResult::kRead;
}

TableResult ListProcessIds(std::span<int32_t> ids, size_t& total) {
  const FileDescriptor table = OpenTable();
  total = 0;
  const bool whole = ForEachNumberedEntry(table.get(), [&](int32_t pid) {
    if (total < ids.size()) ids[total] = pid;
    ++total;
  });
  return whole && total > 0 ? TableResult::kRead : TableResult::kUnreadable;
}

}  // namespace zu::platform
