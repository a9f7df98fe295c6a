// XPC and libdispatch. Plain C++, not Objective-C++: their objects are C
// structures here, retained and released by hand.

#include "platform/ipc.h"

#include <dispatch/dispatch.h>
#include <xpc/xpc.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <utility>

#include "platform/macos/ipc_wire.h"
#include "platform/macos/stay_loaded.h"
#include "support/guarded.h"
#include "support/never_destroyed.h"
#include "support/scoped_handle.h"

namespace zu::platform {
namespace {

struct DispatchQueueTraits {
  using Value = dispatch_queue_t;
  static constexpr Value kNone = nullptr;
  static void Close(Value queue) noexcept { ::dispatch_release(queue); }
};
using ScopedDispatchQueue = ScopedHandle<DispatchQueueTraits>;

struct XpcObjectTraits {
  using Value = xpc_object_t;
  static constexpr Value kNone = nullptr;
  static void Close(Value object) noexcept { ::xpc_release(object); }
};
using ScopedXpcObject = ScopedHandle<XpcObjectTraits>;

// XPC has a reference of its own to a connection until it is cancelled, so
// letting go of ours alone would leave it open; before a received connection is
// resumed, cancelling is how to decline it. A second cancel has no effect.
struct XpcConnectionTraits {
  using Value = xpc_connection_t;
  static constexpr Value kNone = nullptr;
  static void Close(Value connection) noexcept {
    ::xpc_connection_cancel(connection);
    ::xpc_release(connection);
  }
};
using ScopedXpcConnection = ScopedHandle<XpcConnectionTraits>;

struct MallocTraits {
  using Value = char*;
  static constexpr Value kNone = nullptr;
  static void Close(Value text) noexcept { std::free(text); }
};
using ScopedText = ScopedHandle<MallocTraits>;

}  // namespace

struct IpcQueue {
  explicit IpcQueue(ScopedDispatchQueue serial) : queue(std::move(serial)) {}

  const ScopedDispatchQueue queue;
  // What the consumer waits for. libdispatch brings the threads that deliver.
  std::mutex mutex;
  std::condition_variable wakeup;
  bool signalled = false;
};

struct IpcListener {
  IpcListener() = default;
  IpcListener(const IpcListener&) = delete;
  IpcListener& operator=(const IpcListener&) = delete;
  // XPC aborts when the last reference goes to a connection that was made here
  // and never resumed, and resumes none that has no handler.
  ~IpcListener() {
    if (resumed) return;
    ::xpc_connection_set_event_handler(xpc.get(), ^(xpc_object_t /*event*/) {
      return;
    });
    ::xpc_connection_cancel(xpc.get());
    ::xpc_connection_resume(xpc.get());
  }

  ScopedXpcConnection xpc;
  bool resumed = false;
};

struct IpcConnection : std::enable_shared_from_this<IpcConnection> {
  explicit IpcConnection(ScopedXpcConnection peer) : xpc(std::move(peer)) {}

  ScopedXpcConnection xpc;
};

struct IpcMessage {
  explicit IpcMessage(ScopedXpcObject dictionary)
      : xpc(std::move(dictionary)) {}

  ScopedXpcObject xpc;
};

namespace {

// Held by handler calls together, and alone to stop them. Never destroyed:
// XPC's threads go on while the process exits.
NeverDestroyed<std::shared_mutex> g_gate_storage;
std::shared_mutex& g_gate = g_gate_storage.value;
bool g_stopped = false;

// What a connection's block works with. XPC copies and destroys blocks, so they
// capture nothing but a reference to this.
struct Delivery {
  IpcConnectionRef connection;
  IpcConnectionHandler handler;
};

IpcEvent EventOf(xpc_object_t object) {
  const xpc_type_t type = ::xpc_get_type(object);
  if (type == XPC_TYPE_DICTIONARY) return IpcEvent::kMessage;
  if (type != XPC_TYPE_ERROR) return IpcEvent::kNotADictionary;
  if (object == XPC_ERROR_CONNECTION_INTERRUPTED) return IpcEvent::kInterrupted;
  if (object == XPC_ERROR_CONNECTION_INVALID) return IpcEvent::kInvalid;
  if (object == XPC_ERROR_TERMINATION_IMMINENT) {
    return IpcEvent::kTerminationImminent;
  }
  return IpcEvent::kOtherError;
}

IpcMessageRef Adopt(xpc_object_t dictionary) {
  ScopedXpcObject object(dictionary);
  if (!object.valid()) return nullptr;
  return std::make_shared<IpcMessage>(std::move(object));
}

// `delivery` by value: it must outlive the block that is running, which the
// last event may destroy.
void Deliver(std::shared_ptr<Delivery> delivery, xpc_object_t object) {
  const IpcEvent event = EventOf(object);
  Guarded(__func__, [&] {
    const std::shared_lock lock(g_gate);
    if (g_stopped || !delivery->handler) return;
    delivery->handler(event, event == IpcEvent::kMessage
                                 ? Adopt(::xpc_retain(object))
                                 : nullptr);
  });
  // The last event of any connection. XPC's connection owns the block, which
  // owns the delivery, which owns our reference to the connection: end of the
  // cycle.
  if (event == IpcEvent::kInvalid) *delivery = Delivery{};
}

void Accept(const IpcListenerHandler& handler, xpc_object_t object) {
  Guarded(__func__, [&] {
    IpcConnectionRef connection;
    if (::xpc_get_type(object) != XPC_TYPE_ERROR) {
      ScopedXpcConnection peer(
          static_cast<xpc_connection_t>(::xpc_retain(object)));
      connection = std::make_shared<IpcConnection>(std::move(peer));
    }
    const std::shared_lock lock(g_gate);
    if (!g_stopped) handler(connection);
  });
}

}  // namespace

IpcQueueRef CreateSerialQueue(const char* label) {
  ScopedDispatchQueue queue(
      ::dispatch_queue_create(label, DISPATCH_QUEUE_SERIAL));
  if (!queue.valid()) return nullptr;
  return std::make_shared<IpcQueue>(std::move(queue));
}

bool AwaitSignal(IpcQueue& queue, std::chrono::milliseconds timeout) {
  std::unique_lock lock(queue.mutex);
  const auto signalled = [&queue] { return queue.signalled; };
  if (timeout == kForever) {
    queue.wakeup.wait(lock, signalled);
  } else {
    queue.wakeup.wait_for(lock, timeout, signalled);
  }
  return std::exchange(queue.signalled, false);
}

void Signal(IpcQueue& queue) {
  {
    const std::lock_guard lock(queue.mutex);
    queue.signalled = true;
  }
  queue.wakeup.notify_one();
}

IpcListenerRef CreateListener(const char* service_name) {
  StayLoaded();
  const auto listener = std::make_shared<IpcListener>();
  listener->xpc.reset(::xpc_connection_create_mach_service(
      service_name,
      ::dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0),
      XPC_CONNECTION_MACH_SERVICE_LISTENER));
  return listener;
}

void SetListenerHandler(IpcListener& listener, IpcListenerHandler handler) {
  const auto shared =
      std::make_shared<const IpcListenerHandler>(std::move(handler));
  ::xpc_connection_set_event_handler(listener.xpc.get(), ^(xpc_object_t event) {
    Accept(*shared, event);
  });
}

void ResumeListener(IpcListener& listener) {
  listener.resumed = true;
  ::xpc_connection_resume(listener.xpc.get());
}

void CancelListener(IpcListener& listener) {
  ::xpc_connection_cancel(listener.xpc.get());
}

ProcessReference PeerOf(const IpcConnection& connection) {
  return {.pid = ::xpc_connection_get_pid(connection.xpc.get())};
}

const char* NameOf(const IpcConnection& connection) {
  return ::xpc_connection_get_name(connection.xpc.get());
}

std::string DescriptionOf(const IpcConnection& connection) {
  const ScopedText text(::xpc_copy_description(connection.xpc.get()));
  return text.valid() ? text.get() : "";
}

bool SetPeerRequirement(IpcConnection& connection, const char* requirement) {
  if (__builtin_available(macOS 12.0, *)) {
    return ::xpc_connection_set_peer_code_signing_requirement(
               connection.xpc.get(), requirement) == 0;
  }
  return true;
}

void SetTargetQueue(IpcConnection& connection, const IpcQueueRef& queue) {
  ::xpc_connection_set_target_queue(connection.xpc.get(),
                                    queue ? queue->queue.get() : nullptr);
}

void SetConnectionHandler(IpcConnection& connection,
                          IpcConnectionHandler handler) {
  const auto delivery = std::make_shared<Delivery>(
      Delivery{connection.shared_from_this(), std::move(handler)});
  ::xpc_connection_set_event_handler(connection.xpc.get(),
                                     ^(xpc_object_t event) {
                                       Deliver(delivery, event);
                                     });
}

void ResumeConnection(IpcConnection& connection) {
  ::xpc_connection_resume(connection.xpc.get());
}

void CancelConnection(IpcConnection& connection) {
  ::xpc_connection_cancel(connection.xpc.get());
}

size_t BodySize(const IpcMessage& message) {
  size_t size = 0;
  const void* const bytes =
      ::xpc_dictionary_get_data(message.xpc.get(), kDataKey, &size);
  return bytes != nullptr ? size : 0;
}

void CopyBody(const IpcMessage& message, char* destination) {
  size_t size = 0;
  const void* const bytes =
      ::xpc_dictionary_get_data(message.xpc.get(), kDataKey, &size);
  if (bytes != nullptr) std::memcpy(destination, bytes, size);
}

IpcMessageRef CreateReply(const IpcMessageRef& request) {
  return Adopt(::xpc_dictionary_create_reply(request->xpc.get()));
}

IpcMessageRef CreateMessage() {
  return Adopt(::xpc_dictionary_create(nullptr, nullptr, 0));
}

// XPC ends the process when memory is short, so there is no failure to report.
bool SetBody(IpcMessage& message, std::string_view body) {
  ::xpc_dictionary_set_data(message.xpc.get(), kDataKey,
                            body.empty() ? "" : body.data(), body.size());
  return true;
}

// XPC copies the message and never blocks. What the peer does not take waits in
// this process, without a bound that could be set.
void SendMessage(IpcConnection& connection, const IpcMessageRef& message) {
  ::xpc_connection_send_message(connection.xpc.get(), message->xpc.get());
}

// The threads are libdispatch's: they neither end nor can be joined. Events end
// in Deliver and Accept from here on, whose code stays loaded.
void StopIpc() {
  const std::lock_guard lock(g_gate);
  g_stopped = true;
}

}  // namespace zu::platform
