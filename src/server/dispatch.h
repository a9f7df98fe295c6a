// The hand-off of requests from the clients' queue to the worker thread.
#ifndef ZU_SERVER_DISPATCH_H_
#define ZU_SERVER_DISPATCH_H_

#include "platform/ipc.h"

namespace zu::server {

// Queues one request for the worker, which answers it. Requests are answered
// one at a time in the order of these calls, which come from the clients'
// serial queue; blocks while enough of them are waiting. A request that the
// server's stop overtakes is dropped.
void HandleRequest(const platform::IpcConnectionRef& client,
                   const platform::IpcMessageRef& message);

// Starts the worker over a new request queue, as the consumer of the clients'
// queue. False: no thread could be made; requests then wait until the server
// stops.
bool StartWorker(const platform::IpcQueueRef& clients);

// Has the worker end once the queue is empty and waits for that, unless this is
// the worker's own thread: it then ends when the callback returns.
void StopWorker();

// Releases the queue, if there is one, and what still is in it. `released` is
// called before that.
void ReleaseRequestQueue(void (*released)());

// Drops what is queued, so that no callback begins any more, unless the worker
// is at a request and so perhaps inside one: false, with nothing changed. For a
// server that is shutting down.
bool AbandonRequests();

}  // namespace zu::server

#endif  // ZU_SERVER_DISPATCH_H_
