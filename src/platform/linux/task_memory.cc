#include "platform/task_memory.h"

#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/uio.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "platform/linux/link_map.h"
#include "platform/linux/process_file.h"
#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

// KERN_FAILURE, which is also the contract's number for memory without data.
constexpr int32_t kFailure = 5;

// What a task costs at most, whatever its memory tells. Real lists take far
// less than the first, and most lie within the second; the kernel's usual limit
// to mappings is below the third.
constexpr uint64_t kMaxBytesRead = uint64_t{512} << 20;
constexpr size_t kMaxBytesKept = size_t{4} << 20;
static_assert(kMaxBytesKept / 4096 <= IOV_MAX);
constexpr size_t kMaxMappings = 65536;

// What a loader keeps of its images lies close together, and a call costs more
// than a page.
constexpr uint64_t kBlock = 8;  // Pages.

struct StreamCloser {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, StreamCloser>;

Stream OpenTable(const char* path) { return Stream(std::fopen(path, "re")); }

using DeviceNumber = std::pair<unsigned, unsigned>;  // Major and minor.

// The mounted file systems that have no device's number, since they may span
// several, but have their files from nowhere else.
//
// As mounted where the caller sees it: in a mount namespace of one's own anyone
// may lay an overlay on a file system that one serves.
std::vector<DeviceNumber> ReadDevicelessFileSystems() {
  constexpr std::string_view kTypes[] = {"bcachefs", "btrfs", "overlay", "zfs"};
  std::vector<DeviceNumber> systems;
  const Stream table = OpenTable("/proc/self/mountinfo");
  unsigned major = 0;
  unsigned minor = 0;
  while (table && std::fscanf(table.get(), " %*u %*u %u:%u %*s %*s %*s", &major,
                              &minor) == 2) {
    char word[16] = "";  // Fields without a fixed number, "-", and the type.
    while (std::fscanf(table.get(), "%15s", word) == 1) {
      if (std::string_view(word) == "-") break;
    }
    if (std::fscanf(table.get(), "%15s%*[^\n]", word) != 1) break;
    if (std::ranges::find(kTypes, word) != std::end(kTypes)) {
      systems.emplace_back(major, minor);
    }
  }
  return systems;
}

// Where in a process's memory this machine's files are. Reads the kernel's
// tables as far as it is asked, each line once.
class FileMappings {
 public:
  explicit FileMappings(uint32_t task)
      : table_(OpenTable(ProcessPath(task, "maps").text)) {}

  bool HasLocalFile(uint64_t address) {
    while (mappings_.empty() || mappings_.back().end <= address) {
      if (!ReadMapping()) return false;
    }
    const auto mapping =
        std::ranges::upper_bound(mappings_, address, {}, &Mapping::end);
    if (mapping->start > address) return false;
    if (mapping->device.first != 0) return true;
    if (!deviceless_) deviceless_ = ReadDevicelessFileSystems();
    return std::ranges::find(*deviceless_, mapping->device) !=
           deviceless_->end();
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

  Stream table_;
  std::vector<Mapping> mappings_;  // By address.
  std::optional<std::vector<DeviceNumber>> deviceless_;
};

// Tells the memory that can be read without waiting for somebody. Whoever reads
// a page that is not there waits, and cannot be killed, until it has been
// provided; and that may be up to a program which never does: one that serves a
// file system, or has asked to be told of such pages.
//
// A process that takes a page away just after it was looked at can still hold
// its reader up.
class MemoryGuard {
 public:
  explicit MemoryGuard(uint32_t task)
      : task_(task), file_(OpenProcessFile(task, "pagemap")) {}

  // What is asked below is told of this page, or of those of its block, as they
  // are now.
  void Look(uint64_t page) {
    const uint64_t number = page / PageSize();
    first_ = number - number % kBlock;
    const ssize_t size =
        ::pread(file_.get(), entries_.data(), sizeof entries_,
                static_cast<off_t>(first_ * sizeof entries_[0]));
    end_ =
        first_ + (size > 0 ? static_cast<size_t>(size) : 0) / sizeof(uint64_t);
  }

  bool IsPresent(uint64_t page) const {
    constexpr uint64_t kPresent = uint64_t{1} << 63;
    return (Entry(page) & kPresent) != 0;
  }

  bool MayRead(uint64_t page) {
    constexpr uint64_t kSwapped = uint64_t{1} << 62;
    // The process wants to be told of it. Then one that nobody has provided yet
    // may count as swapped, too.
    constexpr uint64_t kWatched = uint64_t{1} << 57;
    if (IsPresent(page)) return true;
    const uint64_t entry = Entry(page);
    if ((entry & kSwapped) != 0) return (entry & kWatched) == 0;
    // Not told of at all when the process's entries may not be read.
    if (end_ == first_) return false;
    if (!mappings_) mappings_.emplace(task_);
    return mappings_->HasLocalFile(page);
  }

 private:
  uint64_t Entry(uint64_t page) const {
    const uint64_t number = page / PageSize();
    return number >= first_ && number < end_ ? entries_[number - first_] : 0;
  }

  const uint32_t task_;
  const FileDescriptor file_;
  std::optional<FileMappings> mappings_;
  std::array<uint64_t, kBlock> entries_;
  uint64_t first_ = 0;  // Numbers of the pages that they are of.
  uint64_t end_ = 0;
};

std::optional<ProgramFacts> ReadProgramFacts(uint32_t task) {
  // A process may not open its own file when it has given up being dumpable.
  if (task == static_cast<uint32_t>(::getpid())) {
    return ProgramFacts{.headers = ::getauxval(AT_PHDR),
                        .header_count = ::getauxval(AT_PHNUM),
                        .kernel_image = ::getauxval(AT_SYSINFO_EHDR)};
  }
  const FileDescriptor file = OpenProcessFile(task, "auxv");
  std::array<std::byte, 4096> bytes;  // The kernel keeps some hundred.
  const ssize_t count = RetryOnInterrupt(
      [&] { return ::read(file.get(), bytes.data(), bytes.size()); });
  if (count < 0) return std::nullopt;
  return ParseAuxiliaryVector(
      std::span(bytes).first(static_cast<size_t>(count)));
}

}  // namespace

int32_t GetTask(int32_t pid, uint32_t& task) {
  task = static_cast<uint32_t>(pid);
  if (pid == ::getpid()) return 0;
  // Asks for the same right as reading the memory does.
  return OpenProcessFile(task, "mem").valid() ? 0 : kFailure;
}

// Whole pages, each read once until all are read again.
struct TaskMemory::State {
  struct Page {
    std::unique_ptr<std::byte[]> bytes;
    bool wanted = false;  // Not only read along with another.
  };

  explicit State(uint32_t task)
      : process(static_cast<pid_t>(task)), program(ReadProgramFacts(task)) {
    // Who waits for oneself would not get further either way.
    if (process != ::getpid()) guard.emplace(task);
  }

  // False when that would be more than a task may cost.
  bool Spend(uint64_t bytes) {
    if (bytes > bytes_left) return false;
    bytes_left -= bytes;
    return true;
  }

  // Into `pages`, or out of them when they cannot be read. One that cannot may
  // take those behind it along.
  void ReadAll(std::span<const uint64_t> addresses) {
    if (addresses.empty()) return;
    const size_t size = PageSize();
    if (!Spend(addresses.size() * size)) {
      pages.clear();
      return;
    }
    std::vector<iovec> local;
    std::vector<iovec> remote;
    uint64_t end = 0;
    for (const uint64_t address : addresses) {
      auto& bytes = pages[address].bytes;
      if (!bytes) bytes = std::make_unique_for_overwrite<std::byte[]>(size);
      local.push_back({bytes.get(), size});
      // The kernel looks each range up anew.
      if (remote.empty() || address != end) {
        remote.push_back({reinterpret_cast<void*>(address), 0});
      }
      remote.back().iov_len += size;
      end = address + size;
    }
    const ssize_t bytes = ::process_vm_readv(
        process, local.data(), local.size(), remote.data(), remote.size(), 0);
    const size_t count = bytes < 0 ? 0 : static_cast<size_t>(bytes) / size;
    for (const uint64_t address : addresses.subspan(count)) {
      pages.erase(address);
    }
  }

  // Nothing when it is not there; lives until the next call.
  std::span<const std::byte> ReadPage(uint64_t address) {
    const size_t size = PageSize();
    auto page = pages.find(address);
    if (page == pages.end()) {
      if (pages.size() + kBlock > kMaxBytesKept / size) pages.clear();
      if (guard) {
        guard->Look(address);
        if (!guard->MayRead(address)) return {};
        std::vector<uint64_t> block;
        const uint64_t first = address - address % (kBlock * size);
        for (uint64_t i = 0; i < kBlock; ++i) {
          const uint64_t each = first + i * size;
          if (guard->IsPresent(each) && !pages.contains(each)) {
            block.push_back(each);
          }
        }
        ReadAll(block);
      }
      if (!pages.contains(address)) ReadAll({&address, 1});
      page = pages.find(address);
      if (page == pages.end()) return {};
    }
    page->second.wanted = true;
    return {page->second.bytes.get(), size};
  }

  // Those that were wanted and are still there, in one go: the less time it
  // takes, the less the process can do meanwhile.
  void ReadAgain() {
    std::erase_if(pages, [](const auto& page) { return !page.second.wanted; });
    std::vector<uint64_t> addresses;
    for (const auto& page : pages) addresses.push_back(page.first);
    if (guard) {
      std::ranges::sort(addresses);
      uint64_t block = 1;  // None.
      std::erase_if(addresses, [&](uint64_t address) {
        const uint64_t own = address - address % (kBlock * PageSize());
        if (std::exchange(block, own) != own) guard->Look(address);
        if (guard->IsPresent(address)) return false;
        pages.erase(address);
        return true;
      });
    }
    ReadAll(addresses);
  }

  const pid_t process;
  const std::optional<ProgramFacts> program;
  std::optional<MemoryGuard> guard;
  uint64_t bytes_left = kMaxBytesRead;
  std::unordered_map<uint64_t, Page> pages;
  std::vector<std::byte> joined;
};

TaskMemory::TaskMemory(uint32_t task) : state_(new State(task)) {}
TaskMemory::~TaskMemory() = default;

TaskMemory::Reading TaskMemory::Read(uint64_t address, size_t length) {
  if (!state_->Spend(length)) return {kFailure, {}};
  std::vector<std::byte>& joined = state_->joined;
  joined.clear();
  for (;;) {
    const uint64_t start = address + joined.size();
    const size_t offset = static_cast<size_t>(start & (PageSize() - 1));
    const auto page = state_->ReadPage(start - offset);
    if (page.empty()) return {kFailure, joined};
    const size_t wanted = length - joined.size();
    const auto part =
        page.subspan(offset, std::min(wanted, page.size() - offset));
    if (part.size() == length) return {0, part};
    joined.insert(joined.end(), part.begin(), part.end());
    if (joined.size() == length) return {0, joined};
  }
}

void TaskMemory::ReadAgain() { state_->ReadAgain(); }

size_t PageSize() {
  static const auto size = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  return size;
}

ImageList TaskMemory::ReadImageList() {
  if (!state_->program) return {.status = kFailure};
  const auto read = [this](uint64_t address, size_t length) {
    return Read(address, length).data;
  };
  ImageList list;
  const ListResult result =
      ListImagePaths(*state_->program, read, list.path_addresses);
  if (result != ListResult::kListed) list.status = kFailure;
  list.changing = result == ListResult::kNoList;
  return list;
}

}  // namespace zu::platform
