#include "platform/ipc.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "platform/linux/ipc/connection.h"
#include "platform/linux/ipc/event_loop.h"
#include "platform/linux/ipc/listener.h"

namespace zu::platform {

struct IpcQueue {
  explicit IpcQueue(std::shared_ptr<EventLoop> event_loop)
      : loop(std::move(event_loop)) {}
  ~IpcQueue() { loop->Release(); }
  IpcQueue(const IpcQueue&) = delete;
  IpcQueue& operator=(const IpcQueue&) = delete;

  const std::shared_ptr<EventLoop> loop;
};

IpcQueueRef CreateSerialQueue(const char* /*label*/) {
  // A thread's name has room for 15 characters, the label for more.
  auto loop = StartEventLoop("zu-clients");
  return loop ? std::make_shared<IpcQueue>(std::move(loop)) : nullptr;
}

bool AwaitSignal(IpcQueue& queue, std::chrono::milliseconds timeout) {
  return queue.loop->AwaitSignal(
      timeout == kForever ? -1 : static_cast<int>(timeout.count()));
}

void Signal(IpcQueue& queue) { queue.loop->Signal(); }

void StopIpc() { StopEventLoops(); }

IpcListenerRef CreateListener(const char* service_name) {
  return std::make_shared<IpcListener>(service_name);
}
void SetListenerHandler(IpcListener& listener, IpcListenerHandler handler) {
  listener.SetHandler(std::move(handler));
}
void ResumeListener(IpcListener& listener) { listener.Resume(); }
void CancelListener(IpcListener& listener) { listener.Cancel(); }

ProcessReference PeerOf(const IpcConnection& connection) {
  return {connection.peer().pid, connection.peer().process.get()};
}

const char* NameOf(const IpcConnection& connection) {
  return connection.service().c_str();
}

std::string DescriptionOf(const IpcConnection& connection) {
  char text[256];
  const Peer& peer = connection.peer();
  std::snprintf(
      text, sizeof(text),
      "<connection: %p> { name = %s, pid = %d, euid = %u, egid = %u }",
      static_cast<const void*>(&connection), connection.service().c_str(),
      peer.pid, peer.uid, peer.gid);
  return text;
}

// The kernel knows no such rule: what it would do is done for every message,
// with the credentials that come along and the peer's image.
bool SetPeerRequirement(IpcConnection& /*connection*/,
                        const char* /*requirement*/) {
  return true;
}

void SetTargetQueue(IpcConnection& connection, const IpcQueueRef& queue) {
  connection.SetLoop(queue ? queue->loop : nullptr);
}
void SetConnectionHandler(IpcConnection& connection,
                          IpcConnectionHandler handler) {
  connection.SetHandler(std::move(handler));
}
void ResumeConnection(IpcConnection& connection) { connection.Resume(); }
void CancelConnection(IpcConnection& connection) { connection.Cancel(); }

size_t BodySize(const IpcMessage& message) { return message.header.length; }

void CopyBody(const IpcMessage& message, char* destination) {
  const char* body =
      message.region ? message.region->data() : message.body.get();
  if (body != nullptr) std::memcpy(destination, body, message.header.length);
}

IpcMessageRef CreateReply(const IpcMessageRef& request) {
  if (request->header.kind != FrameKind::kRequest) return nullptr;
  auto reply = std::make_shared<IpcMessage>();
  reply->header.kind = FrameKind::kReply;
  reply->header.request = request->header.request;
  reply->request = request;
  return reply;
}

IpcMessageRef CreateMessage() { return std::make_shared<IpcMessage>(); }

bool SetBody(IpcMessage& message, std::string_view body) {
  message.header.flags = 0;
  message.header.length = 0;
  message.body.reset();
  if (body.size() > kMaxBodySize) return false;
  // Below the threshold the socket is as fast, and the region stays cold.
  if (message.request && message.request->region &&
      body.size() >= kRegionThreshold) {
    std::memcpy(message.request->region->data(), body.data(), body.size());
    message.header.flags = kFrameHasData | kFrameInRegion;
  } else {
    message.body = AllocateBody(body.size());
    if (!message.body) return false;
    std::memcpy(message.body.get(), body.data(), body.size());
    message.header.flags = kFrameHasData;
  }
  message.header.length = body.size();
  return true;
}

void SendMessage(IpcConnection& connection, const IpcMessageRef& message) {
  connection.Send(message);
}

}  // namespace zu::platform
