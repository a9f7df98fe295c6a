#include "platform/linux/memory_guard.h"

#include <unistd.h>
#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/mount_table.h"
#include "platform/linux/process_file.h"
#include "platform/task_memory.h"

namespace zu::platform {
namespace {

// A process's, of which those beyond count as nobody's files. The kernel's
// usual limit is below.
constexpr size_t kMaxMappings = 65536;

using DeviceNumber = std::pair<unsigned, unsigned>;  // Major and minor.

// Whether the file system with this number has its files on this machine. As
// mounted where the caller sees it: in a mount namespace of one's own anyone
// may lay an overlay on a file system that one serves.
bool IsLocal(DeviceNumber device, const std::vector<Mount>& mounts) {
  // Without a device's number, since they may span several.
  constexpr std::string_view kDeviceless[] = {"bcachefs", "btrfs", "overlay",
                                              "zfs"};
  const auto mount = std::ranges::find_if(mounts, [&](const Mount& each) {
    return DeviceNumber(each.major, each.minor) == device;
  });
  if (mount == mounts.end()) return device.first != 0;
  // Served by a program, from a device.
  if (device.first != 0) return !mount->type.starts_with("fuseblk");
  return std::ranges::find(kDeviceless, mount->type) != std::end(kDeviceless);
}

struct StreamCloser {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};

}  // namespace

// Where in a process's memory this machine's files are. Reads the kernel's
// table as far as it is asked, each line once.
class MemoryGuard::FileMappings {
 public:
  explicit FileMappings(uint32_t task)
      : table_(std::fopen(ProcessPath(task, "maps").text, "re")) {}

  bool HasLocalFile(uint64_t address) {
    while (mappings_.empty() || mappings_.back().end <= address) {
      if (!ReadMapping()) return false;
    }
    const auto mapping =
        std::ranges::upper_bound(mappings_, address, {}, &Mapping::end);
    if (mapping->start > address) return false;
    if (mapping->device == DeviceNumber()) return false;
    if (!mounts_) mounts_ = ReadMountTable();
    return IsLocal(mapping->device, *mounts_);
  }

 private:
  struct Mapping {
    uint64_t start;
    uint64_t end;
    DeviceNumber device;  // 0:0 without a file.
  };

  bool ReadMapping() {
    Mapping next{};
    if (!table_ || mappings_.size() >= kMaxMappings ||
        std::fscanf(table_.get(),
                    " %" SCNx64 "-%" SCNx64 " %*s %*x %x:%x%*[^\n]",
                    &next.start, &next.end, &next.device.first,
                    &next.device.second) != 4) {
      table_.reset();
      return false;
    }
    mappings_.push_back(next);
    return true;
  }

  std::unique_ptr<std::FILE, StreamCloser> table_;
  std::vector<Mapping> mappings_;  // By address.
  std::optional<std::vector<Mount>> mounts_;
};

MemoryGuard::MemoryGuard(uint32_t task)
    : task_(task), file_(OpenProcessFile(task, "pagemap")) {
  Forget();
}

MemoryGuard::~MemoryGuard() = default;

void MemoryGuard::Forget() {
  present_.clear();
  mappings_.reset();
  start_ = present_since_ = Clock::now();
}

bool MemoryGuard::MayRead(uint64_t page) {
  constexpr uint64_t kPresent = uint64_t{1} << 63;
  constexpr uint64_t kSwapped = uint64_t{1} << 62;
  // The process wants to be told of it. Then one that nobody has provided yet
  // may count as swapped, too.
  constexpr uint64_t kWatched = uint64_t{1} << 57;
  if (const auto now = Clock::now(); now - present_since_ >= kMoment) {
    present_.clear();
    present_since_ = now;
  }
  if (IsPresent(page)) return true;
  const uint64_t number = page / PageSize();
  const uint64_t index = number % kWindow;
  std::array<uint64_t, kWindow> entries;
  const ssize_t size =
      ::pread(file_.get(), entries.data(), sizeof entries,
              static_cast<off_t>((number - index) * sizeof entries[0]));
  const size_t count =
      (size > 0 ? static_cast<size_t>(size) : 0) / sizeof entries[0];
  std::bitset<kWindow>& present = present_[number - index];
  for (size_t i = 0; i < kWindow; ++i) {
    present[i] = i < count && (entries[i] & kPresent) != 0;
  }
  if (present[index]) return true;
  if (index < count && (entries[index] & kSwapped) != 0) {
    return (entries[index] & kWatched) == 0;
  }
  // Not told of at all when the process's entries may not be read.
  if (count == 0) return false;
  if (!mappings_) mappings_ = std::make_unique<FileMappings>(task_);
  return mappings_->HasLocalFile(page);
}

bool MemoryGuard::IsPresent(uint64_t page) const {
  const uint64_t number = page / PageSize();
  const auto window = present_.find(number - number % kWindow);
  return window != present_.end() && window->second[number % kWindow];
}

}  // namespace zu::platform
