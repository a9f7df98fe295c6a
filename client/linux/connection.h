// A connection over a Unix-domain socket.
//
// One of the threads that wait reads the socket for all of them: it hands each
// reply to the thread that asked, and passes the reading on when it has what it
// came for. Sending goes in turns, so that frames do not mix.
#ifndef ZU_CLIENT_LINUX_CONNECTION_H_
#define ZU_CLIENT_LINUX_CONNECTION_H_

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <utility>

#include "block.h"
#include "linux/deadline.h"
#include "linux/region.h"
#include "platform/linux/ipc_frame.h"
#include "support/file_descriptor.h"
#include "transport.h"

struct ZuClient {
 public:
  // Takes over a connected stream socket that blocks.
  explicit ZuClient(zu::FileDescriptor socket) : socket_(std::move(socket)) {}

  ZuClientStatus Request(zu::client::Bytes body, int32_t timeout_ms,
                         zu::client::Sink& reply);
  ZuClientStatus Send(zu::client::Bytes body, int32_t timeout_ms);
  ZuClientStatus Receive(int32_t timeout_ms, zu::client::Sink& message);
  void Disconnect();
  uint64_t LostBroadcasts();

 private:
  using Deadline = zu::client::Deadline;
  using Lock = std::unique_lock<std::mutex>;

  // A call that waits, on its caller's stack. Linked while it is not done.
  struct Waiter {
    uint64_t request = 0;  // 0: the next broadcast will do.
    zu::client::Sink& sink;
    ZuClientStatus status = ZU_CLIENT_OK;
    bool done = false;
    bool asleep = false;        // On `wake`, so it can be woken to read.
    uint64_t region_bytes = 0;  // The reply lies in the region, so long.
    bool in_region = false;
    Waiter* next = nullptr;
    std::condition_variable wake{};
  };

  enum class RegionState {
    kFree,
    kLent,     // To the server, with the request region_request_.
    kReading,  // Holds the reply to it, which is being copied.
  };

  // Before `body` is sent: true when it may go through the region, which is
  // then lent.
  bool LendRegion(uint64_t request, size_t size);

  // The right to send. Others wait for it until theirs is given back.
  ZuClientStatus TakeTurn(Lock& lock, Deadline& deadline);
  void EndTurn();
  // Sends one frame, without the lock but with the turn. `started` tells
  // whether any of it went out.
  ZuClientStatus SendFrame(zu::platform::FrameKind kind, uint64_t request,
                           zu::client::Bytes body, bool in_region,
                           Deadline& deadline, bool& started);

  void Link(Waiter& waiter);
  void Unlink(const Waiter& waiter);
  Waiter* Find(uint64_t request);
  void Finish(Waiter& waiter, ZuClientStatus status);
  // Has a sleeping waiter read on, if nobody reads.
  void PassReadingOn();
  // Waits until `waiter` is done or the deadline has passed; reads meanwhile if
  // nobody else does. The waiter is unlinked then.
  ZuClientStatus Await(Lock& lock, Waiter& waiter, Deadline& deadline);

  // Reads once into the buffer or the long body. Only the reading thread does
  // so, without the lock. ZU_CLIENT_OK also when nothing came.
  ZuClientStatus ReadSome(Deadline& deadline);
  // Delivers every whole frame that has been read. False: one breaks a rule.
  bool Dispatch();
  [[nodiscard]] bool IsValid(const zu::platform::FrameHeader& header) const;
  // Gives one valid frame to whom it is for. Its body is at `body`, or in
  // `block` when that is null.
  void Deliver(const zu::platform::FrameHeader& header, const char* body,
               zu::client::Block block);

  // Ends every call with `status`; the first reason stays.
  void Break(ZuClientStatus status);

  static constexpr size_t kBufferSize = 65536;
  alignas(64) char buffer_[kBufferSize];  // For the reading thread only.

  const zu::FileDescriptor socket_;

  std::mutex mutex_;  // Guards what follows, unless it says otherwise.
  ZuClientStatus broken_ = ZU_CLIENT_OK;
  uint64_t last_request_ = 0;
  Waiter* waiters_ = nullptr;
  zu::client::BroadcastQueue broadcasts_;

  bool sending_ = false;
  std::condition_variable turn_;

  // Made and written by the thread that has the turn to send.
  zu::client::Region region_;
  bool region_refused_ = false;
  RegionState region_state_ = RegionState::kFree;
  uint64_t region_request_ = 0;

  // From here on for the reading thread only.
  bool reading_ = false;             // Guarded by the mutex.
  int32_t receive_timeout_ms_ = -1;  // What the socket is set to.
  // A frame that does not fit in the buffer, on its way into memory of its own.
  std::optional<zu::platform::FrameHeader> long_frame_;
  zu::client::Block long_body_;  // Without data, nobody gets it.
  size_t long_left_ = 0;         // Bytes of it that are still to come.
  size_t end_ = 0;  // The buffer starts with that many bytes of frames.
};

#endif  // ZU_CLIENT_LINUX_CONNECTION_H_
