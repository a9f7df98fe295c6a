// Sockets of the peers that have to make their own.
#ifndef ZU_BENCH_IPC_UNIX_SOCKET_H_
#define ZU_BENCH_IPC_UNIX_SOCKET_H_

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "support/file_descriptor.h"

namespace zu::bench {

// Makes a stream socket and binds or connects it to `path` with `call`.
// Invalid, with a message on standard error, on failure.
inline FileDescriptor OpenSocket(const std::string& path,
                                 int (*call)(int, const sockaddr*, socklen_t)) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (path.size() >= sizeof name.sun_path) return {};
  std::memcpy(name.sun_path, path.data(), path.size());
  if (call(socket.get(), reinterpret_cast<const sockaddr*>(&name),
           sizeof name) == 0) {
    return socket;
  }
  std::perror(path.c_str());
  return {};
}

inline FileDescriptor Listen(const std::string& path) {
  FileDescriptor listener = OpenSocket(path, ::bind);
  if (listener.valid() && ::listen(listener.get(), 128) == 0) return listener;
  return {};
}

// Reports input on `descriptor` as `event` (level-triggered).
inline bool Watch(int epoll, int descriptor, epoll_data_t data) {
  epoll_event event{.events = EPOLLIN, .data = data};
  return ::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

}  // namespace zu::bench

#endif  // ZU_BENCH_IPC_UNIX_SOCKET_H_
