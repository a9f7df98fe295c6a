// Takes a client's byte stream apart into frames.
//
// Pure: bytes in, frames out, in whatever pieces they come. Nothing is
// allocated before the length that asks for it was checked, and never more than
// one body of the greatest length.
#ifndef ZU_PLATFORM_LINUX_IPC_FRAME_ASSEMBLER_H_
#define ZU_PLATFORM_LINUX_IPC_FRAME_ASSEMBLER_H_

#include <array>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <memory>
#include <span>
#include <string_view>

#include "platform/linux/ipc_frame.h"
#include "support/allocated.h"

namespace zu::platform {

// Memory from the C library; of some size, it begins on a line of the cache:
// copies of some tens of KiB into other places are many times slower.
using Body = Allocated<char>;
Body AllocateBody(size_t size);  // Null when memory is short.

// A frame from a client. `body` is empty when it lies in the region, when there
// is none, and when its length is beyond what the transport carries. It is
// valid during the visit, and longer by taking `storage`, where that is not
// null.
struct Frame {
  FrameHeader header;
  std::string_view body;
  Body storage;
};

// Tells whether the header is one that a client may send.
[[nodiscard]] bool IsClientHeader(const FrameHeader& header);

class FrameAssembler {
 public:
  // Where the stream's next bytes go, in this order. The second piece is the
  // start of `scratch`, so a body that comes whole with its header is received
  // right there, as well aligned as that is.
  struct Destination {
    std::span<char> first;
    std::span<char> second;
  };
  Destination NextDestination(std::span<char> scratch);

  // Says that `size` bytes were received into the last destination and visits
  // the frames that are complete with them. A visitor that returns false ends
  // the stream. False: the stream broke a rule or a visitor ended it, or memory
  // is short; the connection has to be closed.
  using Visitor = std::function<bool(Frame)>;
  [[nodiscard]] bool Consume(size_t size, std::span<char> scratch,
                             const Visitor& visit);

 private:
  [[nodiscard]] bool StartFrame(std::string_view& rest, const Visitor& visit);
  [[nodiscard]] bool ConsumeStream(std::string_view rest, const Visitor& visit);

  // The part of a header that is there.
  std::array<char, sizeof(FrameHeader)> header_bytes_;
  size_t header_size_ = 0;
  // A body that is still coming in.
  FrameHeader header_;
  Body body_;
  size_t body_size_ = 0;
  // Bytes of an overlong body that are still to be thrown away.
  uint64_t skip_ = 0;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_IPC_FRAME_ASSEMBLER_H_
