// Which memory of another process can be read without being held up by it.
#ifndef ZU_PLATFORM_LINUX_MEMORY_GUARD_H_
#define ZU_PLATFORM_LINUX_MEMORY_GUARD_H_

#include <bitset>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

#include "support/file_descriptor.h"

namespace zu::platform {

// Tells the memory that can be read without waiting for somebody. Whoever reads
// a page that is not there waits until it has been provided, and perhaps cannot
// be killed meanwhile; and that may be up to a program which never does: one
// that serves a file system, or has asked to be told of such pages.
//
// A process that takes a page away within a moment of its being looked at can
// still hold its reader up.
class MemoryGuard {
 public:
  explicit MemoryGuard(uint32_t task);
  ~MemoryGuard();

  // The page is in memory, or the kernel can provide it by itself.
  bool MayRead(uint64_t page);

  // It was in memory a moment ago, when it or one close to it was asked for.
  bool IsPresent(uint64_t page) const;

  // False when what was told since the start, or since it was forgotten, is
  // older than a moment.
  bool IsFresh() const { return Clock::now() - start_ < kMoment; }
  void Forget();

 private:
  class FileMappings;
  using Clock = std::chrono::steady_clock;
  // Most lists are read within it, twice.
  static constexpr std::chrono::microseconds kMoment{300};
  // Looked at together: a call costs as much as some tens of pages.
  static constexpr size_t kWindow = 32;

  const uint32_t task_;
  const FileDescriptor file_;
  std::unique_ptr<FileMappings> mappings_;
  // By the number of the first page, which the process chooses: no hashes.
  std::map<uint64_t, std::bitset<kWindow>> present_;
  Clock::time_point present_since_;
  Clock::time_point start_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_MEMORY_GUARD_H_
