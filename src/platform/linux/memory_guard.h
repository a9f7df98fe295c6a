// Which memory of another process can be read without being held up by it.
#ifndef ZU_PLATFORM_LINUX_MEMORY_GUARD_H_
#define ZU_PLATFORM_LINUX_MEMORY_GUARD_H_

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "support/file_descriptor.h"

namespace zu::platform {

// Tells the memory that can be read without waiting for somebody. Whoever reads
// a page that is not there waits, and cannot be killed, until it has been
// provided; and that may be up to a program which never does: one that serves a
// file system, or has asked to be told of such pages.
//
// A process that takes pages away while it is read can still hold its reader
// up.
class MemoryGuard {
 public:
  explicit MemoryGuard(uint32_t task);
  ~MemoryGuard();

  // The page is in memory, or the kernel can provide it by itself.
  bool MayRead(uint64_t page);

  // It was in memory when it, or one close to it, was asked for.
  bool IsPresent(uint64_t page) const;
  void Forget() { present_.clear(); }

 private:
  class FileMappings;
  // Looked at together: a call costs as much as some tens of pages.
  static constexpr size_t kWindow = 32;

  const uint32_t task_;
  const FileDescriptor file_;
  std::unique_ptr<FileMappings> mappings_;
  // By the number of the first page.
  std::unordered_map<uint64_t, std::bitset<kWindow>> present_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_MEMORY_GUARD_H_
