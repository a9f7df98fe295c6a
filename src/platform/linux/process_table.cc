#include "platform/process_table.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>
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
#include "platform/linux/text_file.h"
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

// Of the processes as this one has them numbered. Absent when the kernel does
// not tell: it is older than 6.13, or keeps parents outside of the namespace to
// itself; a filter refuses the call; the process has ended.
std::optional<int32_t> AskParent(int32_t pid) {
  // As far as the kernel's pidfd_info always reached; older headers lack it.
  struct {
    uint64_t wanted = 0;  // Nothing that would not come unasked.
    uint64_t control_group;
    uint32_t thread;
    uint32_t process;
    int32_t parent;
    uint32_t users_and_groups[8];
    uint32_t spare;
  } information;
  static_assert(sizeof information == 64);
  const FileDescriptor process(
      static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  const unsigned long request = _IOWR(0xFF, 11, decltype(information));
  if (::ioctl(process.get(), request, &information) != 0) return std::nullopt;
  return information.parent;
}

// Whether parents can be asked for, at half of what the table's text costs: the
// kernel knows how, and the table has the same numbers. One that was mounted
// for other processes, further out, tells several of this one.
bool CanAskParents() {
  const std::string own = "\nNSpid:\t" + std::to_string(::getpid()) + "\n";
  return ReadTextFile("/proc/self/status").find(own) != std::string::npos &&
         AskParent(::getpid()).has_value();
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
  const bool can_ask = CanAskParents();
  Records block;
  TableResult result = TableResult::kRead;
  const bool whole = ForEachNumberedEntry(table.get(), [&](int32_t pid) {
    if (result != TableResult::kRead) return;
    const auto asked = can_ask ? AskParent(pid) : std::nullopt;
    int32_t parent = asked.value_or(0);
    const int error = asked ? 0 : ReadParent(table.get(), pid, parent);
    if (error == ENOENT || error == ESRCH) return;  // It has ended.
    // A mount option may hide the text about others' processes.
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
