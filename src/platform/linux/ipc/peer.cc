#include "platform/linux/ipc/peer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cstdint>
#include <string>

// Since Linux 6.5; older headers lack the name.
#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace zu::platform {
namespace {

// Older kernels cannot name the process that connected, only the one that has
// its number now. Whoever that is has to pass the check of its executable.
FileDescriptor OpenPeerProcess(int socket, pid_t pid) {
  int process = -1;
  socklen_t size = sizeof(process);
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &process, &size) == 0) {
    return FileDescriptor(process);
  }
  return FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

bool HasEnded(int process) {
  pollfd entry{process, POLLIN, 0};
  return RetryOnInterrupt([&entry] { return ::poll(&entry, 1, 0); }) != 0;
}

// Both files hold on to the image and read as empty when its last user is gone.
// The first is the cheaper one to read, and missing from some small kernels.
FileDescriptor OpenImage(pid_t pid) {
  const std::string directory = "/proc/" + std::to_string(pid);
  for (const char* file : {"/pagemap", "/maps"}) {
    FileDescriptor image(
        ::open((directory + file).c_str(), O_RDONLY | O_CLOEXEC));
    if (image.valid()) return image;
  }
  return {};
}

}  // namespace

std::optional<Peer> IdentifyPeer(int socket) {
  ucred credentials{};
  socklen_t size = sizeof(credentials);
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    return std::nullopt;
  }
  Peer peer{.pid = credentials.pid,
            .uid = credentials.uid,
            .gid = credentials.gid,
            .process = {},
            .image = {}};
  if (peer.pid <= 0) return std::nullopt;
  peer.process = OpenPeerProcess(socket, peer.pid);
  if (!peer.process.valid()) return std::nullopt;
  peer.image = OpenImage(peer.pid);
  // Still alive afterwards: so the image was opened by a number that was its.
  if (!peer.image.valid() || HasEnded(peer.process.get())) return std::nullopt;
  return peer;
}

bool RunsSameImage(const Peer& peer) {
  uint64_t entry = 0;
  return RetryOnInterrupt([&] {
           return ::pread(peer.image.get(), &entry, sizeof(entry), 0);
         }) > 0;
}

}  // namespace zu::platform
