// The directories of /proc whose entries are numbers: processes, descriptors.
#ifndef ZU_PLATFORM_LINUX_NUMBERED_ENTRIES_H_
#define ZU_PLATFORM_LINUX_NUMBERED_ENTRIES_H_

#include <dirent.h>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zu::platform {

// Calls `body` with the number of each entry of an open directory, in the
// kernel's order. False when it cannot be read (to its end).
template <typename Body>
[[nodiscard]] bool ForEachNumberedEntry(int directory, Body body) {
  alignas(dirent64) char buffer[16384];
  for (;;) {
    const ssize_t size = ::getdents64(directory, buffer, sizeof buffer);
    if (size <= 0) return size == 0;
    for (ssize_t at = 0; at < size;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
      at += entry->d_reclen;
      const char* const end = entry->d_name + std::strlen(entry->d_name);
      int32_t number = 0;
      const auto parsed = std::from_chars(entry->d_name, end, number);
      if (parsed.ec == std::errc() && parsed.ptr == end) body(number);
    }
  }
}

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_NUMBERED_ENTRIES_H_
