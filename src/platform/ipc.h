// Local interprocess communication: a named listener, connections that carry
// dictionaries with one "<DATA>" entry, and serial queues on which they
// deliver.
//
// The operations are as small as the platform's own. What is done with a
// connection or a message (admission, order, limits, log lines) is decided by
// src/server. All functions may be called from any thread.
#ifndef ZU_PLATFORM_IPC_H_
#define ZU_PLATFORM_IPC_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace zu::platform {

// A process as the kernel named it. `descriptor` proves that `pid` still means
// the same process (a pidfd); -1 where the system has no such thing or none was
// asked for. Borrowed: whoever made the reference owns the descriptor.
struct ProcessReference {
  int32_t pid = 0;
  int descriptor = -1;
};

struct IpcQueue;
struct IpcListener;
struct IpcConnection;
struct IpcMessage;

using IpcQueueRef = std::shared_ptr<IpcQueue>;
using IpcListenerRef = std::shared_ptr<IpcListener>;
using IpcConnectionRef = std::shared_ptr<IpcConnection>;
using IpcMessageRef = std::shared_ptr<IpcMessage>;

enum class IpcEvent {
  kMessage,         // A dictionary came.
  kNotADictionary,  // Something else came.
  kInterrupted,     // The three errors after which a connection is over.
  kInvalid,
  kTerminationImminent,
  kOtherError,
};

// Called once for each new client, with a connection that is not yet resumed,
// or with null for an error of the listener itself. A connection that is
// neither resumed nor cancelled is closed when its last reference goes. Calls
// of one listener do not overlap.
using IpcListenerHandler = std::function<void(const IpcConnectionRef&)>;

// Called for each event of a resumed connection, never two at a time for
// connections that share a queue. `message` is null unless the event is
// kMessage. The connection stays alive while it can deliver.
using IpcConnectionHandler =
    std::function<void(IpcEvent event, const IpcMessageRef& message)>;

// A new serial queue. Connections that deliver on it keep it alive.
// Null when the system refuses one.
IpcQueueRef CreateSerialQueue(const char* label);

// A queue has at most one consumer: a thread that works on what the handlers on
// the queue pass on to it. AwaitSignal waits until somebody calls Signal, or
// somebody did since it last returned; false when `timeout` passed first.
// Waiting, the consumer may be the thread on which the queue delivers. Handlers
// must therefore not wait for the consumer when they run on its thread.
inline constexpr std::chrono::milliseconds kForever =
    std::chrono::milliseconds::max();
[[nodiscard]] bool AwaitSignal(IpcQueue& queue,
                               std::chrono::milliseconds timeout);
void Signal(IpcQueue& queue);

// A listener for `service_name`, idle until it is resumed. Never fails here:
// a name that cannot be taken comes as an error to the handler.
IpcListenerRef CreateListener(const char* service_name);
void SetListenerHandler(IpcListener& listener, IpcListenerHandler handler);
void ResumeListener(IpcListener& listener);
// No new clients from here on. A handler call that is under way may still end
// after this returns. Not to be called from the handler.
void CancelListener(IpcListener& listener);

// The process at the other end. Its descriptor belongs to the connection.
ProcessReference PeerOf(const IpcConnection& connection);
// The service's name as the connection knows it; null when it knows none.
const char* NameOf(const IpcConnection& connection);
// One line for a log, naming the connection's address and its peer.
std::string DescriptionOf(const IpcConnection& connection);

// Has the system itself refuse messages from a peer that does not satisfy
// `requirement`, where it can do that. False: it can, and would not take the
// requirement, so the connection must not be used.
bool SetPeerRequirement(IpcConnection& connection, const char* requirement);
void SetTargetQueue(IpcConnection& connection, const IpcQueueRef& queue);
void SetConnectionHandler(IpcConnection& connection,
                          IpcConnectionHandler handler);
void ResumeConnection(IpcConnection& connection);
// Closes the connection. Its handler may still get a last kInvalid.
void CancelConnection(IpcConnection& connection);

// Bytes under "<DATA>"; 0 also when there is no such entry. The length that the
// sender claims, so it is not bounded: nothing is allocated for it.
size_t BodySize(const IpcMessage& message);
// Copies the body, all BodySize() bytes, of which there are then at most
// kMaxBodySize. What the sender does to its own copy changes nothing that was
// copied.
void CopyBody(const IpcMessage& message, char* destination);

// The dictionary that answers `request`; null when its sender wants none. When
// the last reference to a request goes and no reply was sent, its sender learns
// that none will come.
IpcMessageRef CreateReply(const IpcMessageRef& request);
// An empty dictionary of our own; null when memory is short.
IpcMessageRef CreateMessage();
// Sets "<DATA>"; the bytes are copied. False, and no such entry, when memory is
// short or the transport does not carry that many.
bool SetBody(IpcMessage& message, std::string_view body);

// Sends a reply, or the same message to any number of connections. Never
// blocks: what the peer does not take is queued within a bound, and a peer that
// exceeds the bound is disconnected.
void SendMessage(IpcConnection& connection, const IpcMessageRef& message);

// Ends every thread of this facility, where it has any of its own, and waits
// for handler calls that are under way. Nothing is delivered any more. For the
// library's unload.
void StopIpc();

// Longest "<DATA>" that the transport has to carry, either way.
inline constexpr size_t kMaxBodySize = 5242880;

}  // namespace zu::platform

#endif  // ZU_PLATFORM_IPC_H_
