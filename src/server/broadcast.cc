// Messages from the host to all of its clients.

#include <string_view>

#include "ZuHelper.h"
#include "platform/ipc.h"
#include "server/client_list.h"
#include "server/server_state.h"
#include "support/guarded.h"
#include "support/log.h"

namespace zu::server {
namespace {

platform::IpcMessageRef CreateBroadcast(const void* bytes, int32_t length) {
  if (bytes == nullptr || length < 1) return nullptr;
  platform::IpcMessageRef message = platform::CreateMessage();
  const std::string_view body(static_cast<const char*>(bytes),
                              static_cast<size_t>(length));
  if (!message || !platform::SetBody(*message, body)) return nullptr;
  return message;
}

uint32_t Broadcast(const void* bytes, int32_t length) {
  if (gShuttingDown) return ZU_SERVER_REFUSED;
  const platform::IpcMessageRef message = CreateBroadcast(bytes, length);
  if (!message) {
    LogError("< ZuHelperOSX.broadcastMessageWithNoReply: message not created");
    return ZU_SERVER_REFUSED;
  }
  // The lock keeps admissions and disconnects out, for a short time only:
  // sending never waits for a client.
  gClientConnections.ForEach([&message](platform::IpcConnection& client) {
    platform::SendMessage(client, message);
  });
  return 0;
}

}  // namespace
}  // namespace zu::server

uint32_t broadcastMessageWithNoReply(const void* message, int32_t length) {
  return zu::Guarded(__func__, ZU_SERVER_REFUSED,
                     [=] { return zu::server::Broadcast(message, length); });
}
