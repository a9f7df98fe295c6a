// The loader's list in the memory of a process that is out to harm.

#include <algorithm>
#include <cstdlib>

#include "platform/linux/link_map.h"
#include "platform/task_memory.h"

// The auxiliary vector and behind it, from address 0x10000 on, the memory.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kVector = 64;
  constexpr uint64_t kStart = 0x10000;
  const auto bytes = std::as_bytes(std::span(data, size));
  if (size < kVector) return 0;
  const auto program = zu::platform::ParseAuxiliaryVector(bytes.first(kVector));
  if (!program) return 0;
  const auto memory = bytes.subspan(kVector);
  size_t reads = 0;
  const auto read = [&](uint64_t address, size_t length) {
    ++reads;
    const size_t offset = std::min<uint64_t>(address - kStart, memory.size());
    return memory.subspan(offset, std::min(length, memory.size() - offset));
  };
  std::vector<zu::platform::ImageRecord> images;
  (void)zu::platform::ListImages(*program, read, images);
  constexpr size_t kMost = zu::platform::kMaxImages;
  if (images.size() > kMost || reads > 2 * kMost + 4) std::abort();
  return 0;
}
