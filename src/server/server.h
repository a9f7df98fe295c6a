// The server, as the rest of the library sees it.
#ifndef ZU_SERVER_SERVER_H_
#define ZU_SERVER_SERVER_H_

namespace zu::server {

// For the library's unload: ends the threads of a server that the host left
// running, which would otherwise run into unmapped code. Does nothing when the
// host is leaving from inside a callback.
void LeaveServer();

}  // namespace zu::server

#endif  // ZU_SERVER_SERVER_H_
