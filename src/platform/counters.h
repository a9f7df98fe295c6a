// What the system counts for the calling process.
#ifndef ZU_PLATFORM_COUNTERS_H_
#define ZU_PLATFORM_COUNTERS_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/task.h"

namespace zu::platform {

// 0 when the system does not tell.
uint64_t ReadAvailableProcessors();
uint64_t ReadProcessors();

// Times of threads that have ended, where ReadProcessTimes tells those of live
// ones only; elsewhere zero.
ProcessTimes ReadTerminatedThreadTimes();

// In bytes; zero where the system has no such thing.
struct MemoryFigures {
  uint64_t virtual_size = 0;
  uint64_t resident = 0;
  uint64_t resident_peak = 0;
  uint64_t internal = 0;
  uint64_t internal_peak = 0;
  uint64_t compressed = 0;
  uint64_t compressed_peak = 0;
  uint64_t purgeable = 0;
};
std::optional<MemoryFigures> ReadMemoryFigures();

// In bytes since the process's start.
struct KernelMemory {
  uint64_t private_allocated = 0;
  uint64_t private_freed = 0;
  uint64_t shared_allocated = 0;
  uint64_t shared_freed = 0;
};
std::optional<KernelMemory> ReadKernelMemory();

// Since the process's start; macOS counts in 32 bits.
struct TaskEvents {
  int64_t faults = 0;
  int64_t copy_on_write_faults = 0;
  int64_t messages_sent = 0;
  int64_t messages_received = 0;
  int64_t page_ins = 0;
};
std::optional<TaskEvents> ReadTaskEvents();

struct Descriptor {
  int32_t number = -1;
  bool is_socket = false;
};
// The process's open descriptors, without those that listing takes. Absent when
// the system does not tell.
std::optional<std::vector<Descriptor>> ListDescriptors();

// Size of the system's record about a socket, and how many bytes of it the
// system gives for one of the process's descriptors; 0 on failure.
inline constexpr size_t kSocketInformationSize = 792;
size_t ReadSocketInformation(int32_t descriptor);

std::optional<uint64_t> CountThreads();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_COUNTERS_H_
