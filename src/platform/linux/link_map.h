// The dynamic loader's list of images, as it lies in a process's memory.
#ifndef ZU_PLATFORM_LINUX_LINK_MAP_H_
#define ZU_PLATFORM_LINUX_LINK_MAP_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "platform/task_memory.h"

namespace zu::platform {

// What the kernel told the process about its program.
struct ProgramFacts {
  uint64_t headers = 0;  // Address of the program headers.
  uint64_t header_count = 0;
  uint64_t kernel_image = 0;  // Of code that the kernel maps; 0 for none.
};

// From the auxiliary vector's bytes. Absent when it is none of a 64-bit
// process, as when that has no memory.
std::optional<ProgramFacts> ParseAuxiliaryVector(
    std::span<const std::byte> bytes);

// Reads the process's memory: up to that many bytes, which live until the next
// call.
using MemoryReader =
    std::function<std::span<const std::byte>(uint64_t address, size_t length)>;

enum class ListResult {
  kListed,
  kNoProgram,  // The memory does not hold what the loader was started with.
  // It does not hold a list, or one of more than kMaxImages, or the loader is
  // at work on it.
  kNoList,
};

// Appends the record of each image, main program first; its own path is empty.
// What the kernel maps is left out, having no file. A program without
// a loader, or whose loader has not come that far, has no images.
//
// The process may be out to harm: it may lie anywhere, also differently each
// time it is asked. That costs a bounded number of bounded reads.
[[nodiscard]] ListResult ListImages(const ProgramFacts& program,
                                    const MemoryReader& read,
                                    std::vector<ImageRecord>& images);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_LINK_MAP_H_
