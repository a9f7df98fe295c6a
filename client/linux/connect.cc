#include "linux/connect.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "linux/deadline.h"

namespace zu::client {
namespace {

bool MakeAddress(const char* directory, std::string_view service,
                 sockaddr_un& address) {
  address.sun_family = AF_UNIX;
  const std::string path = std::string(directory) + "/" + std::string(service);
  if (service.empty() || service.find('/') != std::string_view::npos ||
      path.size() >= sizeof(address.sun_path)) {
    return false;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return true;
}

bool IsAbsent(int error) {
  return error == ENOENT || error == ENOTDIR || error == ECONNREFUSED;
}

ZuClientStatus StatusOf(int error) {
  return IsAbsent(error) ? ZU_CLIENT_NO_SERVER : ZU_CLIENT_SYSTEM_ERROR;
}

}  // namespace

ZuClientStatus ConnectTo(const char* directory, const char* service,
                         int32_t timeout_ms, FileDescriptor& connection) {
  sockaddr_un address = {};
  if (!MakeAddress(directory, service, address)) return ZU_CLIENT_BAD_ARGUMENT;

  struct stat place;
  if (::stat(directory, &place) != 0) return StatusOf(errno);
  const bool owned = place.st_uid == 0 || place.st_uid == ::geteuid();
  if (!S_ISDIR(place.st_mode) || !owned ||
      (place.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return ZU_CLIENT_UNTRUSTED_SERVER;
  }

  const int blocking = timeout_ms == 0 ? SOCK_NONBLOCK : 0;
  FileDescriptor socket(
      ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | blocking, 0));
  if (!socket.valid()) return ZU_CLIENT_SYSTEM_ERROR;
  if (timeout_ms > 0) {
    // Bounds only the wait for room in the listener's backlog: sends on this
    // socket never block.
    const timeval limit = SocketTimeout(timeout_ms);
    if (::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit,
                     sizeof(limit)) != 0) {
      return ZU_CLIENT_SYSTEM_ERROR;
    }
  }
  if (RetryOnInterrupt([&] {
        return ::connect(socket.get(), reinterpret_cast<sockaddr*>(&address),
                         sizeof(address));
      }) != 0) {
    return errno == EAGAIN ? ZU_CLIENT_TIMED_OUT : StatusOf(errno);
  }

  // Also catches a directory that was exchanged after it was examined.
  ucred peer = {};
  socklen_t size = sizeof(peer);
  if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return ZU_CLIENT_SYSTEM_ERROR;
  }
  if (peer.uid != place.st_uid) return ZU_CLIENT_UNTRUSTED_SERVER;
  connection = std::move(socket);
  return ZU_CLIENT_OK;
}

}  // namespace zu::client
