// Entry points of the server: forwarding only.

#include "ZuHelper.h"

uint32_t ZuSetServerCallbackForCommand(const char* command,
                                       ZuCommandCallback callback) {
  return SetServerCallbackForCommand(command, callback);
}

uint32_t ZuStartServer(void) { return StartServer(); }

void ZuStopServer(void) { StopServer(); }

uint32_t ZuBroadcastMessageWithNoReply(const void* message, int32_t length) {
  return broadcastMessageWithNoReply(message, length);
}
