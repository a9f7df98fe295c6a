// What the memory-map tool prints, into buffers of any size.

#include <cstdlib>
#include <memory>
#include <string_view>

#include "process/memory_map_tool.h"

// The first byte is the buffer's size.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data + 1),
                              size - 1);
  const uint8_t capacity = data[0];
  const std::unique_ptr<char[]> buffer(new char[capacity]);
  zu::process::PathList list(buffer.get(), capacity);
  zu::process::ListExecutableMappings(text, list);
  const std::string_view written = list.written();
  if (list.complete() != (list.needed() <= capacity)) std::abort();
  if (!written.empty() && (written[0] != '/' ||
                           written.back() != (list.complete() ? '\0' : '\n'))) {
    std::abort();
  }
  return 0;
}
