#include "server/listener.h"

#include "server/admission.h"
#include "server/client_list.h"
#include "server/dispatch.h"
#include "server/server_state.h"
#include "support/guarded.h"
#include "support/log.h"
#include "support/never_destroyed.h"

namespace zu::server {

namespace {

NeverDestroyed<ClientList> g_client_connections;

using platform::IpcConnectionRef;
using platform::IpcEvent;
using platform::IpcMessageRef;

// All three errors end a client, an interruption too: nobody is kept for a
// reconnection.
void HandleClientError(const IpcConnectionRef& client, IpcEvent event) {
  LogError("ZuHelperOSX.ClientRequestHandler: event type is ERROR");
  if (event == IpcEvent::kOtherError) {
    LogError("ZuHelperOSX.ClientRequestHandler: UNKNOWN error event");
    return;
  }
  LogError(
      "ZuHelperOSX.ClientRequestHandler: XPC error event - "
      "disconnectFromService");
  if (gShuttingDown) return;
  gClientConnections.Remove(client,
                            [&] { platform::CancelConnection(*client); });
}

void HandleClientEvent(const IpcConnectionRef& client, IpcEvent event,
                       const IpcMessageRef& message) {
  if (gShuttingDown) return;
  switch (event) {
    case IpcEvent::kMessage:
      HandleRequest(client, message);
      return;
    case IpcEvent::kNotADictionary:
      LogError("ZuHelperOSX.ClientRequestHandler: got non-dictionary message");
      return;
    default:
      HandleClientError(client, event);
  }
}

void RefuseClient(platform::IpcConnection& client, int32_t pid) {
  const char* name = platform::NameOf(client);
  LogError(
      "< ZuHelperOSX.ClientConnectionHandler: error, client '%s' (pid = %d) "
      "not authorized - cancel connection",
      name != nullptr ? name : "(null)", pid);
  platform::CancelConnection(client);
}

void AdmitClient(const IpcConnectionRef& client,
                 const platform::IpcQueueRef& queue) {
  platform::SetTargetQueue(*client, queue);
  // The handler keeps the connection alive until it has delivered its end.
  platform::SetConnectionHandler(
      *client, [client](IpcEvent event, const IpcMessageRef& message) {
        Guarded("ClientRequestHandler",
                [&] { HandleClientEvent(client, event, message); });
      });
  gClientConnections.ResumeAndAdd(
      client, [&] { platform::ResumeConnection(*client); },
      [&] {
        LogError(
            "ZuHelperOSX.ClientConnectionHandler: client NOT in "
            "gClientConnections need to add...");
        LogError(
            "ZuHelperOSX.ClientConnectionHandler: Adding client %s - "
            "ZubrantSigner",
            platform::DescriptionOf(*client).c_str());
      });
}

void HandleNewClient(const IpcConnectionRef& client,
                     const platform::IpcQueueRef& queue) {
  const platform::ProcessReference peer = platform::PeerOf(*client);
  if (ClientIsAllowedToConnect(peer) &&
      platform::SetPeerRequirement(*client, kAdmissionRequirement)) {
    AdmitClient(client, queue);
  } else {
    RefuseClient(*client, peer.pid);
  }
}

}  // namespace

ClientList& gClientConnections = g_client_connections.value;

void HandleListenerEvent(const IpcConnectionRef& client,
                         const platform::IpcQueueRef& queue) {
  if (gShuttingDown) {
    LogError("< ZuHelperOSX.xpc_connection_set_event_handler: gShuttingDown");
    return;
  }
  if (!client) {
    LogError(
        "ZuHelperOSX.xpc_connection_set_event_handler: xpc_get_type(client) "
        "ERROR");
    return;
  }
  HandleNewClient(client, queue);
  LogError(
      "ZuHelperOSX.xpc_connection_set_event_handler: "
      "ClientConnectionHandler(client) completed");
}

void ClientList::Create() {
  const std::lock_guard lock(monitor_);
  exists_ = true;
}

}  // namespace zu::server
