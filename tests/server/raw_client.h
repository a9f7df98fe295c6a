// A client that can also do what the client library never does.
#ifndef ZU_TESTS_SERVER_RAW_CLIENT_H_
#define ZU_TESTS_SERVER_RAW_CLIENT_H_

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "build_values.h"
#include "platform/linux/ipc_frame.h"
#include "support/file_descriptor.h"

namespace zu::test {

struct RawFrame {
  platform::FrameHeader header;
  std::string body;
};

class RawClient {
 public:
  RawClient() : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path,
                ZU_SOCKET_DIRECTORY "/" ZU_AGENT_SERVICE_NAME);
    connected_ =
        ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address),
                  sizeof(address)) == 0;
  }
  explicit RawClient(int socket) : socket_(socket), connected_(true) {}

  bool connected() const { return connected_; }
  int get() const { return socket_.get(); }

  static std::string Request(std::string_view body, uint64_t number = 1) {
    platform::FrameHeader header;
    header.kind = platform::FrameKind::kRequest;
    header.flags = platform::kFrameHasData;
    header.request = number;
    header.length = body.size();
    return Encode(header, body);
  }
  static std::string Encode(const platform::FrameHeader& header,
                            std::string_view body = "") {
    std::string bytes(sizeof(header), '\0');
    std::memcpy(bytes.data(), &header, sizeof(header));
    return bytes.append(body);
  }

  // All of it, or false once the server has closed.
  bool Send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t sent =
          ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
  }

  // With a descriptor beside the first byte.
  bool SendWith(int descriptor, std::string_view bytes) {
    iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(rights), &descriptor, sizeof(descriptor));
    return ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }

  // The next frame; absent when the server closes first or says nothing.
  std::optional<RawFrame> Read() {
    RawFrame frame;
    if (!Fill(reinterpret_cast<char*>(&frame.header), sizeof(frame.header))) {
      return std::nullopt;
    }
    if ((frame.header.flags & platform::kFrameInRegion) == 0) {
      frame.body.resize(frame.header.length);
      if (!Fill(frame.body.data(), frame.body.size())) return std::nullopt;
    }
    return frame;
  }

  // The server closes without another word.
  bool IsClosed() {
    char byte;
    return Wait() && ::recv(socket_.get(), &byte, 1, 0) <= 0;
  }

 private:
  bool Wait() {
    pollfd entry{socket_.get(), POLLIN, 0};
    return ::poll(&entry, 1, 20000) == 1;
  }
  bool Fill(char* data, size_t size) {
    while (size > 0) {
      if (!Wait()) return false;
      const ssize_t count = ::recv(socket_.get(), data, size, 0);
      if (count <= 0) return false;
      data += count;
      size -= static_cast<size_t>(count);
    }
    return true;
  }

  FileDescriptor socket_;
  bool connected_ = false;
};

}  // namespace zu::test

#endif  // ZU_TESTS_SERVER_RAW_CLIENT_H_
