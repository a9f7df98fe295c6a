// A connection over XPC. The system reads and matches replies; what is ours is
// the queue of broadcasts and the reason why a connection is over.
#include <dispatch/dispatch.h>
#include <xpc/xpc.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

#include "block.h"
#include "transport.h"

namespace {

using zu::client::Block;
using zu::client::Bytes;
using zu::client::Sink;

constexpr char kData[] = "<DATA>";

// Shared with the connection's event handler, which may outlive the client.
struct State {
  std::mutex mutex;
  std::condition_variable changed;
  ZuClientStatus broken = ZU_CLIENT_OK;
  zu::client::BroadcastQueue broadcasts;

  // The first reason stays.
  void Break(ZuClientStatus status) {
    const std::lock_guard lock(mutex);
    if (broken == ZU_CLIENT_OK) broken = status;
    changed.notify_all();
  }
};

// Shared with the handler of one request's reply, which may come after the
// request's deadline.
struct Answer {
  dispatch_semaphore_t ready = dispatch_semaphore_create(0);
  xpc_object_t reply = nullptr;

  Answer() = default;
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;
  ~Answer() {
    if (reply != nullptr) xpc_release(reply);
    dispatch_release(ready);
  }
};

// The service's name is unknown to the system, or the connection was cancelled;
// anything else means that the server ended or refused us.
ZuClientStatus StatusOfError(xpc_object_t error) {
  return error == XPC_ERROR_CONNECTION_INVALID ? ZU_CLIENT_NO_SERVER
                                               : ZU_CLIENT_DISCONNECTED;
}

void HandleEvent(State& state, xpc_object_t event) {
  if (xpc_get_type(event) == XPC_TYPE_ERROR) {
    state.Break(StatusOfError(event));
    return;
  }
  if (xpc_get_type(event) != XPC_TYPE_DICTIONARY) return;
  size_t size = 0;
  const void* const data = xpc_dictionary_get_data(event, kData, &size);
  if (data == nullptr) return;
  Sink copy;
  const bool copied = copy.Copy(data, size) == ZU_CLIENT_OK;
  Block block;
  if (copied) {
    block.size = copy.size();
    block.data.reset(copy.release());
  }
  const std::lock_guard lock(state.mutex);
  state.broadcasts.Push(std::move(block));
  state.changed.notify_one();
}

// A dictionary that the caller releases.
xpc_object_t MakeMessage(Bytes body) {
  xpc_object_t message = xpc_dictionary_create(nullptr, nullptr, 0);
  if (body.data != nullptr) {
    xpc_dictionary_set_data(message, kData, body.data, body.size);
  }
  return message;
}

dispatch_time_t TimeOf(int32_t timeout_ms) {
  if (timeout_ms < 0) return DISPATCH_TIME_FOREVER;
  return dispatch_time(DISPATCH_TIME_NOW, timeout_ms * int64_t{NSEC_PER_MSEC});
}

}  // namespace

struct ZuClient {
  explicit ZuClient(const char* service)
      : queue(dispatch_queue_create("ZuClient", DISPATCH_QUEUE_SERIAL)),
        connection(xpc_connection_create_mach_service(service, queue, 0)) {
    const std::shared_ptr<State> shared = state;
    xpc_connection_set_event_handler(connection, ^(xpc_object_t event) {
      HandleEvent(*shared, event);
    });
    xpc_connection_resume(connection);
  }
  ZuClient(const ZuClient&) = delete;
  ZuClient& operator=(const ZuClient&) = delete;
  ~ZuClient() {
    xpc_connection_cancel(connection);
    xpc_release(connection);
    dispatch_release(queue);
  }

  const std::shared_ptr<State> state = std::make_shared<State>();
  const dispatch_queue_t queue;
  const xpc_connection_t connection;
};

namespace zu::client {
namespace {

ZuClientStatus BrokenStatus(ZuClient& client) {
  const std::lock_guard lock(client.state->mutex);
  return client.state->broken;
}

}  // namespace

// Whether there is a server shows with the first message only.
ZuClientStatus Connect(const char* service, int32_t /*timeout_ms*/,
                       ZuClient*& client) {
  if (*service == '\0') return ZU_CLIENT_BAD_ARGUMENT;
  client = new ZuClient(service);
  return ZU_CLIENT_OK;
}

void Close(ZuClient* client) { delete client; }

// Replies that are still expected come as errors, which ends their calls.
void Disconnect(ZuClient& client) {
  client.state->Break(ZU_CLIENT_DISCONNECTED);
  xpc_connection_cancel(client.connection);
}

ZuClientStatus Request(ZuClient& client, Bytes body, int32_t timeout_ms,
                       Sink& reply) {
  const ZuClientStatus broken = BrokenStatus(client);
  if (broken != ZU_CLIENT_OK) return broken;
  const auto answer = std::make_shared<Answer>();
  xpc_object_t message = MakeMessage(body);
  xpc_connection_send_message_with_reply(
      client.connection, message, client.queue, ^(xpc_object_t object) {
        answer->reply = xpc_retain(object);
        dispatch_semaphore_signal(answer->ready);
      });
  xpc_release(message);
  if (dispatch_semaphore_wait(answer->ready, TimeOf(timeout_ms)) != 0) {
    return ZU_CLIENT_TIMED_OUT;
  }
  if (xpc_get_type(answer->reply) == XPC_TYPE_ERROR) {
    client.state->Break(StatusOfError(answer->reply));
    return BrokenStatus(client);
  }
  if (xpc_get_type(answer->reply) != XPC_TYPE_DICTIONARY) {
    return ZU_CLIENT_PROTOCOL_ERROR;
  }
  size_t size = 0;
  const void* const data = xpc_dictionary_get_data(answer->reply, kData, &size);
  return data == nullptr ? ZU_CLIENT_NO_DATA : reply.Copy(data, size);
}

ZuClientStatus Send(ZuClient& client, Bytes body, int32_t /*timeout_ms*/) {
  const ZuClientStatus broken = BrokenStatus(client);
  if (broken != ZU_CLIENT_OK) return broken;
  xpc_object_t message = MakeMessage(body);
  xpc_connection_send_message(client.connection, message);
  xpc_release(message);
  return ZU_CLIENT_OK;
}

ZuClientStatus Receive(ZuClient& client, int32_t timeout_ms, Sink& message) {
  State& state = *client.state;
  std::unique_lock lock(state.mutex);
  const auto ready = [&state] {
    return !state.broadcasts.empty() || state.broken != ZU_CLIENT_OK;
  };
  if (timeout_ms < 0) {
    state.changed.wait(lock, ready);
  } else if (!state.changed.wait_for(
                 lock, std::chrono::milliseconds(timeout_ms), ready)) {
    return ZU_CLIENT_TIMED_OUT;
  }
  if (state.broadcasts.empty()) return state.broken;
  return message.Take(state.broadcasts.Pop());
}

uint64_t LostBroadcasts(ZuClient& client) {
  const std::lock_guard lock(client.state->mutex);
  return client.state->broadcasts.lost();
}

}  // namespace zu::client
