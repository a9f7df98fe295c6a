// What the parts of the server share.
#ifndef ZU_SERVER_SERVER_STATE_H_
#define ZU_SERVER_SERVER_STATE_H_

#include <atomic>

namespace zu::server {

// Set by StopServer and never cleared: a server that was stopped stays stopped
// for the life of the process, even when a new one is started.
extern std::atomic<bool> gShuttingDown;

}  // namespace zu::server

#endif  // ZU_SERVER_SERVER_STATE_H_
