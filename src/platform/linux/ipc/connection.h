// One client's connection.
#ifndef ZU_PLATFORM_LINUX_IPC_CONNECTION_H_
#define ZU_PLATFORM_LINUX_IPC_CONNECTION_H_

#include <sys/socket.h>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "platform/ipc.h"
#include "platform/linux/ipc/frame_assembler.h"
#include "platform/linux/ipc/peer.h"
#include "platform/linux/ipc/region.h"
#include "support/file_descriptor.h"

namespace zu::platform {

class EventLoop;

struct IpcMessage {
  IpcMessage() = default;
  IpcMessage(const IpcMessage&) = delete;
  IpcMessage& operator=(const IpcMessage&) = delete;
  ~IpcMessage();

  FrameHeader header;  // As it came, or as it is to be sent.
  Body body;           // Null when there is none, or it lies in the region.
  // A message that came: where its body lies and its reply may lie, and, for a
  // request that nobody has answered yet, who sent it.
  std::shared_ptr<Region> region;
  IpcConnectionRef waiting;
  // A reply: what it answers.
  IpcMessageRef request;
};

struct IpcConnection : std::enable_shared_from_this<IpcConnection> {
 public:
  IpcConnection(FileDescriptor socket, Peer peer, const char* service)
      : socket_(std::move(socket)), peer_(std::move(peer)), service_(service) {}

  const Peer& peer() const { return peer_; }
  const std::string& service() const { return service_; }
  int socket() const { return socket_.get(); }

  // Before the connection is resumed.
  void SetLoop(std::shared_ptr<EventLoop> loop) { loop_ = std::move(loop); }
  void SetHandler(IpcConnectionHandler handler) {
    handler_ = std::move(handler);
  }
  void Resume();

  // From any thread.
  void Send(const IpcMessageRef& message);
  void SendNoReply(uint64_t request);
  void Cancel();

  // From the loop's thread. Receive takes in what has come, delivers it and is
  // false once the connection is over; End then delivers that and lets go.
  [[nodiscard]] bool Receive(std::span<char> scratch);
  void Flush();
  void End();

 private:
  struct Outgoing {
    IpcMessageRef message;
    FrameHeader header;
    size_t sent = 0;
    size_t size() const;
  };

  bool TakeControl(const msghdr& message);
  bool HandleFrame(Frame frame);
  void SendFrame(Outgoing frame);
  // Under the mutex. False when the peer takes no more for now.
  bool Write(Outgoing& frame);
  void Abort();

  const FileDescriptor socket_;
  Peer peer_;
  const std::string service_;
  std::shared_ptr<EventLoop> loop_;
  IpcConnectionHandler handler_;

  // The loop's thread only.
  FrameAssembler assembler_;
  FileDescriptor passed_;  // Came with the stream, for the kRegion frame.
  std::shared_ptr<Region> region_;

  std::mutex mutex_;  // Guards what follows.
  bool aborted_ = false;
  std::deque<Outgoing> outgoing_;
  size_t outgoing_size_ = 0;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_IPC_CONNECTION_H_
