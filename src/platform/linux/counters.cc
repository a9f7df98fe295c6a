#include "platform/counters.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

#include "platform/linux/numbered_entries.h"
#include "platform/linux/status_file.h"
#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

uint64_t ReadSetting(int name) {
  const long value = ::sysconf(name);
  return value < 0 ? 0 : static_cast<uint64_t>(value);
}

}  // namespace

uint64_t ReadAvailableProcessors() { return ReadSetting(_SC_NPROCESSORS_ONLN); }

uint64_t ReadProcessors() { return ReadSetting(_SC_NPROCESSORS_CONF); }

// ReadProcessTimes tells those of ended threads, too.
ProcessTimes ReadTerminatedThreadTimes() { return {}; }

std::optional<MemoryFigures> ReadMemoryFigures() {
  StatusField fields[] = {
      {"VmSize:"}, {"VmRSS:"}, {"VmHWM:"}, {"RssAnon:"}, {"VmSwap:"}};
  ReadStatus(fields);
  const auto& [size, resident, peak, anonymous, swapped] = fields;
  if (!size.bytes || !resident.bytes) return std::nullopt;
  return MemoryFigures{.virtual_size = *size.bytes,
                       .resident = *resident.bytes,
                       .resident_peak = peak.bytes.value_or(0),
                       .internal = anonymous.bytes.value_or(0),
                       .compressed = swapped.bytes.value_or(0)};
}

// The kernel does not tell what it holds for a process.
std::optional<KernelMemory> ReadKernelMemory() { return KernelMemory{}; }

std::optional<TaskEvents> ReadTaskEvents() {
  rusage use{};
  if (::getrusage(RUSAGE_SELF, &use) != 0) return std::nullopt;
  return TaskEvents{.faults = use.ru_minflt + use.ru_majflt,
                    .page_ins = use.ru_majflt};
}

// The links of /proc would tell the same, but reading one makes the kernel
// write out a path.
std::optional<std::vector<Descriptor>> ListDescriptors() {
  const FileDescriptor directory(RetryOnInterrupt([] {
    return ::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  }));
  std::vector<Descriptor> descriptors;
  const auto add = [&](int32_t number) {
    struct stat status;
    if (number == directory.get() || ::fstat(number, &status) != 0) return;
    descriptors.push_back({number, S_ISSOCK(status.st_mode)});
  };
  rlimit limit{};
  if (!directory.valid() && errno == EMFILE &&
      ::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    // All below the limit are taken, which is just what hosts want to know.
    for (rlim_t i = 0; i < limit.rlim_cur; ++i) add(static_cast<int32_t>(i));
    return descriptors;
  }
  if (!ForEachNumberedEntry(directory.get(), add)) return std::nullopt;
  return descriptors;
}

// There is no such record.
size_t ReadSocketInformation(int32_t /*descriptor*/) { return 0; }

// Each thread is a link of the directory, as are its own two names.
std::optional<uint64_t> CountThreads() {
  constexpr uint64_t kOwnNames = 2;
  struct stat status;
  if (::stat("/proc/self/task", &status) != 0 || status.st_nlink <= kOwnNames) {
    return std::nullopt;
  }
  return status.st_nlink - kOwnNames;
}

}  // namespace zu::platform
