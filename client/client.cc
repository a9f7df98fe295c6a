// The C interface: argument checks, and the border that no exception crosses.
#include "ZuClient.h"

#include <new>
#include <utility>

#include "build_values.h"
#include "transport.h"

namespace {

using zu::client::Bytes;
using zu::client::Sink;

template <typename Call>
ZuClientStatus Guarded(Call&& call) noexcept {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    return ZU_CLIENT_OUT_OF_MEMORY;
  } catch (...) {
    return ZU_CLIENT_SYSTEM_ERROR;
  }
}

bool IsMessage(const void* data, size_t size) {
  return data != nullptr || size == 0;
}

// Runs a call that brings bytes and hands them over to the caller.
template <typename Call>
ZuClientStatus GuardedWithBlock(bool valid, void** data, size_t* size,
                                Call&& call) {
  if (data != nullptr) *data = nullptr;
  if (size != nullptr) *size = 0;
  if (!valid || data == nullptr) return ZU_CLIENT_BAD_ARGUMENT;
  Sink sink;
  const ZuClientStatus status = Guarded([&] { return call(sink); });
  if (status != ZU_CLIENT_OK) return status;
  if (size != nullptr) *size = sink.size();
  *data = sink.release();
  return ZU_CLIENT_OK;
}

}  // namespace

extern "C" {

const char* ZuClientStatusText(ZuClientStatus status) {
  switch (status) {
    case ZU_CLIENT_OK:
      return "success";
    case ZU_CLIENT_NO_SERVER:
      return "no server is running";
    case ZU_CLIENT_UNTRUSTED_SERVER:
      return "the server or its directory belongs to another user";
    case ZU_CLIENT_DISCONNECTED:
      return "the server closed the connection or refused this program";
    case ZU_CLIENT_TIMED_OUT:
      return "the deadline passed";
    case ZU_CLIENT_NO_REPLY:
      return "the server dropped the request";
    case ZU_CLIENT_NO_DATA:
      return "the reply holds no data";
    case ZU_CLIENT_BUFFER_TOO_SMALL:
      return "the reply is longer than the buffer";
    case ZU_CLIENT_OUT_OF_MEMORY:
      return "memory is short";
    case ZU_CLIENT_BAD_ARGUMENT:
      return "an argument is not valid";
    case ZU_CLIENT_PROTOCOL_ERROR:
      return "the server sent something that is not understood";
    case ZU_CLIENT_SYSTEM_ERROR:
      return "a system call failed";
  }
  return "unknown status";
}

ZuClientStatus ZuClientConnect(const char* service, int32_t timeout_ms,
                               ZuClient** client) {
  if (client == nullptr) return ZU_CLIENT_BAD_ARGUMENT;
  *client = nullptr;
  return Guarded([&] {
    return zu::client::Connect(
        service != nullptr ? service : ZU_AGENT_SERVICE_NAME, timeout_ms,
        *client);
  });
}

void ZuClientClose(ZuClient* client) {
  if (client != nullptr) zu::client::Close(client);
}

void ZuClientDisconnect(ZuClient* client) {
  if (client != nullptr) zu::client::Disconnect(*client);
}

ZuClientStatus ZuClientRequest(ZuClient* client, const void* data, size_t size,
                               int32_t timeout_ms, void** reply,
                               size_t* reply_size) {
  const bool valid = client != nullptr && IsMessage(data, size);
  return GuardedWithBlock(valid, reply, reply_size, [&](Sink& sink) {
    return zu::client::Request(*client, Bytes{data, size}, timeout_ms, sink);
  });
}

ZuClientStatus ZuClientRequestInto(ZuClient* client, const void* data,
                                   size_t size, int32_t timeout_ms, void* reply,
                                   size_t* reply_size) {
  if (client == nullptr || reply == nullptr || reply_size == nullptr ||
      !IsMessage(data, size)) {
    return ZU_CLIENT_BAD_ARGUMENT;
  }
  Sink sink(reply, std::exchange(*reply_size, 0));
  const ZuClientStatus status = Guarded([&] {
    return zu::client::Request(*client, Bytes{data, size}, timeout_ms, sink);
  });
  if (status == ZU_CLIENT_OK || status == ZU_CLIENT_BUFFER_TOO_SMALL) {
    *reply_size = sink.size();
  }
  return status;
}

ZuClientStatus ZuClientSend(ZuClient* client, const void* data, size_t size,
                            int32_t timeout_ms) {
  if (client == nullptr || !IsMessage(data, size)) {
    return ZU_CLIENT_BAD_ARGUMENT;
  }
  return Guarded([&] {
    return zu::client::Send(*client, Bytes{data, size}, timeout_ms);
  });
}

ZuClientStatus ZuClientReceive(ZuClient* client, int32_t timeout_ms,
                               void** message, size_t* size) {
  return GuardedWithBlock(client != nullptr, message, size, [&](Sink& sink) {
    return zu::client::Receive(*client, timeout_ms, sink);
  });
}

uint64_t ZuClientLostBroadcasts(ZuClient* client) {
  return client == nullptr ? 0 : zu::client::LostBroadcasts(*client);
}

}  // extern "C"
