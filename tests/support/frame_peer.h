// An end of a server's socket that can also do what neither library ever does.
#ifndef ZU_TESTS_SUPPORT_FRAME_PEER_H_
#define ZU_TESTS_SUPPORT_FRAME_PEER_H_

#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/ipc_frame.h"
#include "support/file_descriptor.h"

namespace zu::test {

inline std::string Encode(const platform::FrameHeader& header,
                          std::string_view body = "") {
  const char* bytes = reinterpret_cast<const char*>(&header);
  return std::string(bytes, sizeof(header)).append(body);
}

inline sockaddr_un UnixAddress(std::string_view path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

struct FramePeer {
  struct Frame {
    platform::FrameHeader header;
    std::string body;
  };

  // All of it, with a descriptor beside the first byte; false once the other
  // end has closed.
  bool Send(std::string_view bytes, int descriptor = -1) const {
    Message message(const_cast<char*>(bytes.data()), bytes.size());
    if (descriptor < 0) message.msg_controllen = 0;
    if (cmsghdr* rights = CMSG_FIRSTHDR(&message)) {
      *rights = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
      std::memcpy(CMSG_DATA(rights), &descriptor, sizeof(descriptor));
    }
    return ::sendmsg(socket.get(), &message, MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }

  // The next frame, with its body from wherever it is; a region that is handed
  // over is mapped, and no frame. Absent when the other end closes first.
  std::optional<Frame> Read() {
    Frame frame;
    Message message(&frame.header, sizeof(frame.header));
    if (!HasMore() || ::recvmsg(socket.get(), &message, MSG_WAITALL) <= 0) {
      return {};
    }
    if (frame.header.kind == platform::FrameKind::kRegion) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof(int));
      const FileDescriptor memory(descriptor);
      region = static_cast<char*>(::mmap(nullptr, frame.header.length,
                                         PROT_READ | PROT_WRITE, MAP_SHARED,
                                         descriptor, 0));
      return Read();
    }
    frame.body.resize(frame.header.length);
    if (frame.header.flags & platform::kFrameInRegion) {
      std::memcpy(frame.body.data(), region, frame.body.size());
    } else if (!frame.body.empty()) {
      ::recv(socket.get(), frame.body.data(), frame.body.size(), MSG_WAITALL);
    }
    return frame;
  }

  bool HasMore() const {
    pollfd entry{socket.get(), POLLIN, 0};
    return ::poll(&entry, 1, 20000) == 1;
  }
  // The other end closes without another word.
  bool IsClosed() const {
    char byte;
    return HasMore() && ::recv(socket.get(), &byte, 1, 0) <= 0;
  }

  FileDescriptor socket;
  char* region = nullptr;  // What was handed over to this end.

 private:
  // One buffer, and room for one descriptor.
  struct Message : msghdr {
    Message(void* data, size_t size) : msghdr{}, part{data, size} {
      msg_iov = &part;
      msg_iovlen = 1;
      msg_control = control;
      msg_controllen = sizeof(control);
    }
    iovec part;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  };
};

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_FRAME_PEER_H_
