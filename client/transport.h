// What each system's side of the client implements: ZuClient.h's calls, with
// their arguments checked. These may throw when memory is short.
#ifndef ZU_CLIENT_TRANSPORT_H_
#define ZU_CLIENT_TRANSPORT_H_

#include <cstddef>
#include <cstdint>

#include "ZuClient.h"
#include "block.h"

namespace zu::client {

// A message's bytes. Null data: a message without any, which is not the same
// as an empty one.
struct Bytes {
  const void* data;
  size_t size;
};

ZuClientStatus Connect(const char* service, int32_t timeout_ms,
                       ZuClient*& client);
void Close(ZuClient* client);
void Disconnect(ZuClient& client);
ZuClientStatus Request(ZuClient& client, Bytes body, int32_t timeout_ms,
                       Sink& reply);
ZuClientStatus Send(ZuClient& client, Bytes body, int32_t timeout_ms);
ZuClientStatus Receive(ZuClient& client, int32_t timeout_ms, Sink& message);
uint64_t LostBroadcasts(ZuClient& client);

}  // namespace zu::client

#endif  // ZU_CLIENT_TRANSPORT_H_
