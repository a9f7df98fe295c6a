#include "platform/task_memory.h"

#include <sys/auxv.h>
#include <sys/uio.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <bit>
#include <bitset>
#include <cerrno>
#include <climits>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "platform/linux/link_map.h"
#include "platform/linux/memory_guard.h"
#include "platform/linux/process_file.h"
#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

// KERN_FAILURE, which is also the contract's number for memory without data.
constexpr int32_t kFailure = 5;

const int kPageShift = std::countr_zero(PageSize());

// Pages read in one go.
constexpr size_t kMinRun = 2;
constexpr size_t kMaxRun = 16;

// What a task costs at most, whatever its memory tells. Real lists take far
// less than the first, and most lie within the second.
constexpr uint64_t kMaxBytesRead = uint64_t{512} << 20;
constexpr size_t kMaxBytesKept = size_t{4} << 20;
static_assert(kMaxBytesKept / 4096 <= IOV_MAX);

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
  // No process has memory there. Who may not read it is told so first.
  std::byte byte;
  const iovec local = {&byte, sizeof byte};
  const iovec remote = {reinterpret_cast<void*>(UINTPTR_MAX), sizeof byte};
  const ssize_t read = ::process_vm_readv(pid, &local, 1, &remote, 1, 0);
  return read < 0 && errno == EFAULT ? 0 : kFailure;
}

// Whole pages, each read once until all are read again.
struct TaskMemory::State {
  // A cache line: with pages copied to where none begins, a list can take half
  // as long again.
  struct alignas(64) Line {
    std::byte bytes[64];
  };
  // Pages side by side.
  struct Run {
    uint64_t AddressOf(size_t index) const {
      return start + index * PageSize();
    }
    size_t IndexOf(uint64_t address) const {
      return static_cast<size_t>(address - start) >> kPageShift;
    }
    std::byte* BytesOf(size_t index) const {
      return reinterpret_cast<std::byte*>(lines.get()) + index * PageSize();
    }
    uint64_t start;
    size_t count;
    std::unique_ptr<Line[]> lines;
    std::bitset<kMaxRun> read = {};
    std::bitset<kMaxRun> wanted = {};  // Not only read along with another.
  };
  struct Part {
    Run& run;
    size_t first;
    size_t count;
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

  // A page that cannot be read takes those behind it along.
  void Fetch(std::span<const Part> parts) {
    const size_t size = PageSize();
    local.clear();
    remote.clear();
    size_t wanted = 0;
    uint64_t end = 0;
    for (const auto& [run, first, count] : parts) {
      const uint64_t address = run.AddressOf(first);
      local.push_back({run.BytesOf(first), count * size});
      // The kernel looks each range up anew.
      if (remote.empty() || address != end) {
        remote.push_back({reinterpret_cast<void*>(address), 0});
      }
      remote.back().iov_len += count * size;
      end = address + count * size;
      wanted += count;
    }
    if (wanted == 0 || !Spend(wanted * size)) return;
    const ssize_t bytes = ::process_vm_readv(
        process, local.data(), local.size(), remote.data(), remote.size(), 0);
    size_t read = bytes < 0 ? 0 : static_cast<size_t>(bytes) / size;
    for (const auto& [run, first, count] : parts) {
      for (size_t i = first; i < first + count && read > 0; ++i, --read) {
        run.read.set(i);
      }
    }
  }

  // Null when there is none.
  Run* FindRun(uint64_t address) {
    if (recent != nullptr && recent->IndexOf(address) < recent->count) {
      return recent;
    }
    const auto after = runs.upper_bound(address);
    if (after == runs.begin()) return nullptr;
    Run& run = std::prev(after)->second;
    return run.IndexOf(address) < run.count ? recent = &run : nullptr;
  }

  // What a loader keeps of its images lies close together, and a call costs
  // more than a page: the longer the run that this one follows, the longer it
  // is.
  Part MakeRun(uint64_t address) {
    const size_t size = PageSize();
    if (pages_kept + kMaxRun > kMaxBytesKept / size) {
      Drop();
      all_kept = false;
    }
    const auto after = runs.upper_bound(address);
    size_t most = kMinRun;
    if (all_kept && after != runs.begin()) {
      const Run& last = std::prev(after)->second;
      if (last.IndexOf(address) < 2 * last.count) {
        most = std::min(4 * last.count, kMaxRun);
      }
    }
    size_t count = 1;
    for (uint64_t next = address + size;
         count < most && guard && guard->IsPresent(next) &&
         (after == runs.end() || next < after->first);
         next += size) {
      ++count;
    }
    pages_kept += count;
    auto lines =
        std::make_unique_for_overwrite<Line[]>(count * size / sizeof(Line));
    const auto made =
        runs.try_emplace(after, address, Run{address, count, std::move(lines)});
    in_order.push_back(&made->second);
    return {made->second, 0, count};
  }

  // Nothing when it is not there; lives until the next call.
  std::span<const std::byte> ReadPage(uint64_t address) {
    Run* run = FindRun(address);
    if (run == nullptr || !run->read[run->IndexOf(address)]) {
      if (guard && !guard->MayRead(address)) return {};
      const Part part = run != nullptr ? Part{*run, run->IndexOf(address), 1}
                                       : MakeRun(address);
      Fetch({&part, 1});
      if (!part.run.read[part.first]) return {};
      run = &part.run;
    }
    const size_t index = run->IndexOf(address);
    run->wanted.set(index);
    return {run->BytesOf(index), PageSize()};
  }

  void Drop() {
    runs.clear();
    in_order.clear();
    recent = nullptr;
    pages_kept = 0;
  }

  // Those that were wanted, in one go: the less time it takes, the less the
  // process can do meanwhile. Those that could be read a moment ago are taken
  // to be there still. They keep their order: what was read first, and says
  // whether the rest can be relied on, is read between the rest's two readings.
  void ReadAgain() {
    if (!all_kept || (guard && !guard->IsFresh())) {
      Drop();
      all_kept = true;
      if (guard) guard->Forget();
    }
    std::vector<Part> parts;
    for (Run* const run : in_order) {
      run->read.reset();
      for (size_t i = 0; i < run->count; ++i) {
        if (!run->wanted[i]) continue;
        if (i > 0 && run->wanted[i - 1]) {
          ++parts.back().count;
        } else {
          parts.push_back({*run, i, 1});
        }
      }
    }
    Fetch(parts);
  }

  const pid_t process;
  const std::optional<ProgramFacts> program;
  std::optional<MemoryGuard> guard;
  uint64_t bytes_left = kMaxBytesRead;
  std::map<uint64_t, Run> runs;  // By where they start.
  Run* recent = nullptr;         // What was found last is often meant again.
  std::vector<Run*> in_order;    // Of their first reading.
  size_t pages_kept = 0;
  bool all_kept = true;      // Of what was read since it was last read again.
  std::vector<iovec> local;  // The request's, which keep their room.
  std::vector<iovec> remote;
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
  const ListResult result = ListImages(*state_->program, read, list.images);
  if (result != ListResult::kListed) list.status = kFailure;
  list.changing = result == ListResult::kNoList;
  return list;
}

}  // namespace zu::platform
