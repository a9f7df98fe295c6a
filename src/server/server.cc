// Starting and stopping the server, each in a fixed order.

#include <mutex>

#include "ZuHelper.h"
#include "build_values.h"
#include "platform/ipc.h"
#include "platform/notification.h"
#include "server/client_list.h"
#include "server/command_table.h"
#include "server/dispatch.h"
#include "server/gateway_share.h"
#include "server/listener.h"
#include "server/server.h"
#include "server/server_state.h"
#include "support/guarded.h"
#include "support/log.h"
#include "support/never_destroyed.h"

namespace zu::server {

std::atomic<bool> gShuttingDown{false};

namespace {

using platform::IpcConnectionRef;
using platform::IpcListenerRef;
using platform::IpcQueueRef;

// Never destroyed, for the sake of threads that outlast a disorderly exit.
struct Server {
  // Held while the server starts, and while the stop takes things over; never
  // while anybody is waited for.
  std::mutex mutex;
  IpcListenerRef _serverConn;
  IpcQueueRef gClientDispQueue;
};
NeverDestroyed<Server> g_server_storage;
Server& g_server = g_server_storage.value;

void Start() {
  LogError("> ZuHelperOSX.StartServer:");
  const std::lock_guard lock(g_server.mutex);
  if (g_server._serverConn) return;
  uiCmdMap.Create();
  gClientConnections.Create();
  if (!g_server.gClientDispQueue) {
    g_server.gClientDispQueue =
        platform::CreateSerialQueue(ZU_VENDOR_PREFIX ".qrevrevs");
  }
  g_server._serverConn = platform::CreateListener(ZU_AGENT_SERVICE_NAME);
  LogError("ZuHelperOSX.StartServer: xpc_connection_set_event_handler");
  platform::SetListenerHandler(
      *g_server._serverConn,
      [queue = g_server.gClientDispQueue](const IpcConnectionRef& client) {
        Guarded("xpc_connection_set_event_handler",
                [&] { HandleListenerEvent(client, queue); });
      });
  if (StartWorker(g_server.gClientDispQueue)) {
    LogError("ZuHelperOSX.StartServer: xpc worker thread created");
  } else {
    LogError("ZuHelperOSX.StartServer: xpc worker thread creation failed");
  }
  platform::ResumeListener(*g_server._serverConn);
  // Stays when the server stops; without a command table it answers nobody.
  platform::ObserveNotification(kGatewayRequest, &GatewaySerialNumberRequest);
}

// Takes the listener and the queue from the server, whatever is there.
void TakeOver(IpcListenerRef& listener, IpcQueueRef& queue) {
  const std::lock_guard lock(g_server.mutex);
  listener = std::move(g_server._serverConn);
  queue = std::move(g_server.gClientDispQueue);
}

void Stop() {
  LogError("> ZuHelperOSX.StopServer");
  gShuttingDown = true;
  IpcListenerRef listener;
  IpcQueueRef queue;
  TakeOver(listener, queue);
  if (queue) {
    LogError("ZuHelperOSX.StopServer: release dispatch queue");
    queue.reset();
  }
  if (listener) {
    LogError("ZuHelperOSX.StopServer: cancel connection");
    platform::CancelListener(*listener);
    listener.reset();
  }
  StopWorker();
  ReleaseRequestQueue(
      [] { LogError("ZuHelperOSX.StopServer: release gRequestQueue"); });
  if (uiCmdMap.Exists()) {
    LogError("ZuHelperOSX.StopServer: release uiCmdMap");
    uiCmdMap.Release();
  }
  gClientConnections.Release(
      [] { LogError("ZuHelperOSX.StopServer: release gClientConnections"); });
  LogError("< ZuHelperOSX.StopServer: complete");
}

}  // namespace

void LeaveServer() {
  gShuttingDown = true;
  // From inside a callback the host is leaving for good, and everything that
  // waits for that callback is left as it is.
  if (!AbandonRequests()) return;
  IpcListenerRef listener;
  IpcQueueRef queue;
  TakeOver(listener, queue);
  if (listener) platform::CancelListener(*listener);
  StopWorker();
  ReleaseRequestQueue([] {});
  platform::StopIpc();
}

}  // namespace zu::server

uint32_t StartServer(void) {
  return zu::Guarded(__func__, 0u, [] {
    zu::server::Start();
    return 0u;
  });
}

void StopServer(void) {
  zu::Guarded(__func__, [] { zu::server::Stop(); });
}
