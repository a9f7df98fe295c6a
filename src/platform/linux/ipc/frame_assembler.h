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
#include <optional>
#include <span>

#include "platform/linux/ipc_frame.h"

namespace zu::platform {

// A frame from a client. `body` is empty when it lies in the region, when there
// is none, and when its length is beyond what the transport carries; it is
// valid during the visit only.
struct Frame {
  FrameHeader header;
  std::span<const std::byte> body;
};

// Tells whether the header is one that a client may send.
[[nodiscard]] bool IsClientHeader(const FrameHeader& header);

class FrameAssembler {
 public:
  // Where the stream's next bytes go, in this order. The second piece is the
  // start of `scratch`, so a body that comes whole with its header is received
  // right there, as well aligned as that is.
  struct Destination {
    std::span<std::byte> first;
    std::span<std::byte> second;
  };
  Destination NextDestination(std::span<std::byte> scratch);

  // Says that `size` bytes were received into the last destination and visits
  // the frames that are complete with them. A visitor that returns false ends
  // the stream. False: the stream broke a rule or a visitor ended it, or memory
  // is short; the connection has to be closed.
  using Visitor = std::function<bool(const Frame&)>;
  [[nodiscard]] bool Consume(size_t size, std::span<std::byte> scratch,
                             const Visitor& visit);

 private:
  struct Free {
    void operator()(std::byte* memory) const { std::free(memory); }
  };

  [[nodiscard]] bool StartFrame(std::span<const std::byte>& rest,
                                const Visitor& visit);
  [[nodiscard]] bool ConsumeStream(std::span<const std::byte> rest,
                                   const Visitor& visit);

  // The part of a header that is there.
  std::array<std::byte, sizeof(FrameHeader)> header_bytes_;
  size_t header_size_ = 0;
  // A body that is still coming in.
  FrameHeader header_;
  std::unique_ptr<std::byte, Free> body_;
  size_t body_size_ = 0;
  // Bytes of an overlong body that are still to be thrown away.
  uint64_t skip_ = 0;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_IPC_FRAME_ASSEMBLER_H_
