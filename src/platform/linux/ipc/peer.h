// Who is at the other end of a socket, by the kernel's word.
#ifndef ZU_PLATFORM_LINUX_IPC_PEER_H_
#define ZU_PLATFORM_LINUX_IPC_PEER_H_

#include <sys/types.h>
#include <optional>

#include "support/file_descriptor.h"

namespace zu::platform {

struct Peer {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  FileDescriptor process;  // The pidfd.
  // A file of the process's memory image, which reads as empty once the image
  // is gone: after the process ended, and after it replaced its executable.
  FileDescriptor image;
};

// Names the process that connected. Absent when it is gone, when it lives in a
// process-id namespace that is not ours, or when we may not examine it.
std::optional<Peer> IdentifyPeer(int socket);

// The peer lives and runs the same image as when it was identified. One system
// call, about a microsecond.
bool RunsSameImage(const Peer& peer);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_IPC_PEER_H_
