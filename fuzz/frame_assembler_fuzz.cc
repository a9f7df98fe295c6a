// A client's byte stream, cut into pieces and taken apart into frames.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "platform/linux/ipc/frame_assembler.h"

namespace zu::platform {
namespace {

// Everything that comes out, in pieces of at most `piece` bytes.
std::string Assemble(const uint8_t* data, size_t size, size_t piece) {
  FrameAssembler assembler;
  alignas(64) std::array<char, 512> scratch;
  std::string seen;
  while (size > 0) {
    const auto to = assembler.NextDestination(scratch);
    const size_t part =
        std::min({piece, size, to.first.size() + to.second.size()});
    const size_t first = std::min(part, to.first.size());
    std::memcpy(to.first.data(), data, first);
    if (part > first) std::memcpy(to.second.data(), data + first, part - first);
    data += part;
    size -= part;
    const bool good = assembler.Consume(part, scratch, [&seen](Frame frame) {
      seen.append(std::to_string(frame.header.request)).append(frame.body);
      return true;
    });
    if (!good) return seen + "!";
  }
  return seen;
}

}  // namespace
}  // namespace zu::platform

// The first byte says how the stream is cut, which must change nothing.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t piece = data[0] + size_t{1};
  if (zu::platform::Assemble(data + 1, size - 1, piece) !=
      zu::platform::Assemble(data + 1, size - 1, size)) {
    std::abort();
  }
  return 0;
}
