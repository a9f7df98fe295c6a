#include "platform/task_memory.h"

#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/uio.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <unordered_map>

#include "platform/linux/link_map.h"
#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

// KERN_FAILURE, which is also the contract's number for memory without data.
constexpr int32_t kFailure = 5;

// What a task costs at most, whatever its memory tells. Real lists take far
// less than the first, and most lie within the second.
constexpr uint64_t kMaxBytesRead = uint64_t{512} << 20;
constexpr size_t kMaxBytesKept = size_t{4} << 20;

FileDescriptor OpenProcessFile(uint32_t task, const char* name) {
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%u/%s", task, name);
  return FileDescriptor(
      RetryOnInterrupt([&] { return ::open(path, O_RDONLY | O_CLOEXEC); }));
}

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

// Whole pages, each read once: what a loader keeps of its images lies close
// together, and a call costs more than the page.
struct TaskMemory::State {
  using Page = std::unique_ptr<std::byte[]>;

  explicit State(uint32_t task) : process(static_cast<pid_t>(task)) {}

  // False when that would be more than a task may cost.
  bool Spend(uint64_t bytes) {
    if (bytes > bytes_left) return false;
    bytes_left -= bytes;
    return true;
  }

  // Nothing when it is not there; lives until the next call.
  std::span<const std::byte> ReadPage(uint64_t address) {
    const size_t size = PageSize();
    const auto known = pages.find(address);
    if (known != pages.end()) return {known->second.get(), size};
    if (!Spend(size)) return {};
    Page page = std::make_unique_for_overwrite<std::byte[]>(size);
    const iovec local = {page.get(), size};
    const iovec remote = {reinterpret_cast<void*>(address), size};
    if (::process_vm_readv(process, &local, 1, &remote, 1, 0) !=
        static_cast<ssize_t>(size)) {
      return {};
    }
    if (pages.size() >= kMaxBytesKept / size) pages.clear();
    return {(pages[address] = std::move(page)).get(), size};
  }

  const pid_t process;
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

size_t PageSize() {
  static const auto size = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  return size;
}

int32_t ReadImagePaths(uint32_t task, TaskMemory& memory,
                       std::vector<uint64_t>& path_addresses) {
  const auto program = ReadProgramFacts(task);
  if (!program) return kFailure;
  const auto read = [&memory](uint64_t address, size_t length) {
    return memory.Read(address, length).data;
  };
  return ListImagePaths(*program, read, path_addresses) ? 0 : kFailure;
}

}  // namespace zu::platform
