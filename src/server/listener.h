// New clients, and the events of those that were admitted.
#ifndef ZU_SERVER_LISTENER_H_
#define ZU_SERVER_LISTENER_H_

#include "platform/ipc.h"

namespace zu::server {

// Handles one event of the listener; null is an error. Admitted clients deliver
// on `queue`.
void HandleListenerEvent(const platform::IpcConnectionRef& client,
                         const platform::IpcQueueRef& queue);

}  // namespace zu::server

#endif  // ZU_SERVER_LISTENER_H_
