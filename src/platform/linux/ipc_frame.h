// What goes over the server's socket on Linux.
//
// A frame is this header and `length` bytes of body. Both ends run on one
// machine, so numbers are in its byte order. A frame that breaks a rule closes
// its connection.
#ifndef ZU_PLATFORM_LINUX_IPC_FRAME_H_
#define ZU_PLATFORM_LINUX_IPC_FRAME_H_

#include <cstdint>

namespace zu::platform {

inline constexpr uint32_t kFrameMagic = 0x6350755Au;  // "ZuPc"
inline constexpr uint8_t kFrameVersion = 1;

enum class FrameKind : uint8_t {
  kRequest = 1,  // Client to server; a kReply or kNoReply follows.
  kMessage = 2,  // Either way; nothing follows. The server's are broadcasts.
  kReply = 3,    // Server to client.
  kNoReply = 4,  // Server to client: the request was dropped. No body.
  // Client to server, at most once a connection: hands over the connection's
  // region, a memfd that comes with the frame's first byte (SCM_RIGHTS). It is
  // sealed against shrinking, growing and further seals. `length` is its size;
  // no body follows.
  kRegion = 5,
};

// "<DATA>" is present (its length may still be 0). Clear: the dictionary is
// empty and `length` is 0.
inline constexpr uint16_t kFrameHasData = 1u << 0;
// The body lies at the region's start instead of behind the header. A request
// in the region lends it to the server, until the reply (there or not) or
// kNoReply gives it back; only that reply may lie in the region.
inline constexpr uint16_t kFrameInRegion = 1u << 1;

struct FrameHeader {
  uint32_t magic = kFrameMagic;
  uint8_t version = kFrameVersion;
  FrameKind kind = FrameKind::kMessage;
  uint16_t flags = 0;
  uint64_t request = 0;  // The client's number; 0 in frames without an answer.
  uint64_t length = 0;   // Bytes of "<DATA>".
};
static_assert(sizeof(FrameHeader) == 24);

// Bodies from this size on are worth the region (bench/ipc has the figures).
inline constexpr uint64_t kRegionThreshold = 32768;

// The region holds one body of the greatest length.
inline constexpr uint64_t kRegionSize = 5242880;

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_IPC_FRAME_H_
