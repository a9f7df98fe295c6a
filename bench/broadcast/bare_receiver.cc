// The other end of a bare send: reads as many bytes as were sent.

#include <sys/socket.h>

#include <memory>
#include <vector>

#include "receiver.h"
#include "unix_socket.h"

namespace zu::bench {

Receiver ConnectReceiver(const std::string& address) {
  const auto socket =
      std::make_shared<FileDescriptor>(OpenSocket(address, ::connect));
  if (!socket->valid()) return nullptr;
  return [socket](size_t size) {
    std::vector<char> body(size);
    return RetryOnInterrupt([&] {
             return ::recv(socket->get(), body.data(), size, MSG_WAITALL);
           }) == static_cast<ssize_t>(size);
  };
}

}  // namespace zu::bench
