// The limit: a bare echo of length-prefixed bodies over a stream socket, with
// one system call a step. It parses nothing, trusts its clients and stands
// still while one of them is in the middle of a body.

#include <sys/uio.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "aligned_buffer.h"
#include "peer.h"
#include "unix_socket.h"

namespace zu::bench {
namespace {

using Length = uint64_t;
constexpr size_t kMaxFrame = sizeof(Length) + kMaxBody;

// Reads one frame and nothing behind it, as there is only one under way.
// Returns the body's size, -1 when the peer has gone or sends nonsense.
ssize_t ReceiveFrame(int socket, char* frame) {
  size_t received = 0;
  Length length = 0;
  do {
    const ssize_t count = RetryOnInterrupt([&] {
      return ::recv(socket, frame + received, kMaxFrame - received, 0);
    });
    if (count <= 0) return -1;
    received += static_cast<size_t>(count);
    if (received < sizeof length) return -1;  // Is never split.
    std::memcpy(&length, frame, sizeof length);
    if (length > kMaxBody) return -1;
  } while (received < sizeof length + length);
  return static_cast<ssize_t>(length);
}

bool Answer(int socket, char* frame) {
  const ssize_t length = ReceiveFrame(socket, frame);
  if (length < 0) return false;
  const size_t size = sizeof(Length) + static_cast<size_t>(length);
  return RetryOnInterrupt([&] {
           return ::send(socket, frame, size, MSG_NOSIGNAL);
         }) == static_cast<ssize_t>(size);
}

}  // namespace

bool Serve(const std::string& address, const ReportReady& report_ready) {
  const FileDescriptor listener = Listen(address);
  const FileDescriptor epoll(::epoll_create1(EPOLL_CLOEXEC));
  const AlignedBuffer frame = MakeAlignedBuffer(kMaxFrame);
  if (!frame || !listener.valid() ||
      !Watch(epoll.get(), listener.get(), {.fd = listener.get()}) ||
      !Watch(epoll.get(), STDIN_FILENO, {.fd = STDIN_FILENO})) {
    return false;
  }
  report_ready();
  std::vector<epoll_event> events(128);
  for (;;) {
    const int count = RetryOnInterrupt([&] {
      return ::epoll_wait(epoll.get(), events.data(),
                          static_cast<int>(events.size()), -1);
    });
    for (int i = 0; i < count; ++i) {
      const int ready = events[static_cast<size_t>(i)].data.fd;
      if (ready == STDIN_FILENO) return true;
      if (ready == listener.get()) {
        const int client = ::accept(ready, nullptr, nullptr);
        if (client < 0 || !Watch(epoll.get(), client, {.fd = client}))
          std::perror("accept");
      } else if (!Answer(ready, frame.get())) {
        ::close(ready);
      }
    }
  }
}

Connection Connect(const std::string& address) {
  const auto socket =
      std::make_shared<FileDescriptor>(OpenSocket(address, ::connect));
  const std::shared_ptr<char> frame = MakeAlignedBuffer(kMaxFrame);
  if (!frame || !socket->valid()) return nullptr;
  return [socket, frame](std::string_view request) -> std::string_view {
    Length length = request.size();
    iovec parts[] = {{&length, sizeof length},
                     {const_cast<char*>(request.data()), request.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    if (::sendmsg(socket->get(), &message, MSG_NOSIGNAL) !=
        static_cast<ssize_t>(sizeof length + request.size())) {
      return {};
    }
    const ssize_t size = ReceiveFrame(socket->get(), frame.get());
    if (size < 0) return {};
    return {frame.get() + sizeof length, static_cast<size_t>(size)};
  };
}

}  // namespace zu::bench
