// Finding a server that can be trusted.
#ifndef ZU_CLIENT_LINUX_CONNECT_H_
#define ZU_CLIENT_LINUX_CONNECT_H_

#include <cstdint>

#include "ZuClient.h"
#include "support/file_descriptor.h"

namespace zu::client {

// Connects to the socket `service` in `directory`, under the rules that
// ZuClientConnect states. The socket blocks and is closed on exec.
ZuClientStatus ConnectTo(const char* directory, const char* service,
                         int32_t timeout_ms, FileDescriptor& connection);

}  // namespace zu::client

#endif  // ZU_CLIENT_LINUX_CONNECT_H_
