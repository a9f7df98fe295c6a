// The kernel's figures about the calling process's memory.
#ifndef ZU_PLATFORM_LINUX_STATUS_FILE_H_
#define ZU_PLATFORM_LINUX_STATUS_FILE_H_

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace zu::platform {

struct StatusField {
  std::string_view name;  // With its colon: "VmRSS:".
  std::optional<uint64_t> bytes = std::nullopt;
};

// Fills in the fields that the kernel tells, all from one file, which it writes
// in one go: a page that is being swapped out counts once. Without the heap: a
// watcher of memory must do when there is none left.
void ReadStatus(std::span<StatusField> fields);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_STATUS_FILE_H_
