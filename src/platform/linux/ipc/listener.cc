#include "platform/linux/ipc/listener.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <cerrno>
#include <cstring>
#include <utility>

#include "build_values.h"
#include "platform/linux/ipc/connection.h"
#include "platform/linux/thread.h"
#include "support/guarded.h"

namespace zu::platform {
namespace {

// How long the listener rests when the process has no descriptor left.
constexpr int kShortagePause_ms = 100;

// Opens the directory of the sockets and makes it first if need be. One that
// somebody else owns or may write to could show clients another's socket.
FileDescriptor OpenSocketDirectory() {
  ::mkdir(ZU_SOCKET_DIRECTORY, 0755);
  FileDescriptor directory(::open(
      ZU_SOCKET_DIRECTORY, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!directory.valid() || ::fstat(directory.get(), &status) != 0 ||
      status.st_uid != ::geteuid() ||
      (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return {};
  }
  return directory;
}

// A lock that only a living server holds, so that the socket of a dead one can
// be told from one that is in use.
FileDescriptor LockService(int directory, const std::string& service) {
  FileDescriptor lock(::openat(directory, (service + ".lock").c_str(),
                               O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC,
                               0600));
  if (!lock.valid() || ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) return {};
  return lock;
}

FileDescriptor BindSocket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return {};
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  FileDescriptor socket(
      ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  // Accepted sockets inherit the option, so that not even the first bytes come
  // without the kernel's word on their sender.
  if (!socket.valid() ||
      ::setsockopt(socket.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) !=
          0 ||
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address),
             sizeof(address)) != 0 ||
      // Anybody may knock; who may come in, the executable decides.
      ::chmod(path.c_str(), 0666) != 0 ||
      ::listen(socket.get(), SOMAXCONN) != 0) {
    return {};
  }
  return socket;
}

}  // namespace

bool IpcListener::Open() {
  directory_ = OpenSocketDirectory();
  if (!directory_.valid() || !stop_.valid()) return false;
  lock_ = LockService(directory_.get(), service_);
  if (!lock_.valid()) return false;
  ::unlinkat(directory_.get(), service_.c_str(), 0);
  socket_ = BindSocket(std::string(ZU_SOCKET_DIRECTORY "/") + service_);
  return socket_.valid();
}

void IpcListener::Resume() {
  const bool open = Open();
  thread_ = StartThread("zu-listener", [this, open] {
    if (open) {
      Run();
    } else {
      handler_(nullptr);
    }
  });
  if (!thread_) handler_(nullptr);
}

void IpcListener::Cancel() {
  if (const auto thread = std::exchange(thread_, std::nullopt)) {
    stop_.Set();
    ::pthread_join(*thread, nullptr);
  }
  if (socket_.valid()) ::unlinkat(directory_.get(), service_.c_str(), 0);
  socket_.reset();
  lock_.reset();
}

void IpcListener::Run() {
  for (;;) {
    pollfd entries[2] = {{stop_.get(), POLLIN, 0}, {socket_.get(), POLLIN, 0}};
    // Without descriptors the clients wait in the kernel's queue.
    const nfds_t count = short_of_descriptors_ ? 1 : 2;
    const int timeout_ms = short_of_descriptors_ ? kShortagePause_ms : -1;
    RetryOnInterrupt([&] { return ::poll(entries, count, timeout_ms); });
    if (entries[0].revents != 0) return;
    Guarded("IpcAccept", [this] { Accept(); });
  }
}

void IpcListener::Accept() {
  FileDescriptor client(RetryOnInterrupt([this] {
    return ::accept4(socket_.get(), nullptr, nullptr,
                     SOCK_CLOEXEC | SOCK_NONBLOCK);
  }));
  if (!client.valid()) {
    const bool is_shortage = errno == EMFILE || errno == ENFILE ||
                             errno == ENOBUFS || errno == ENOMEM;
    if (is_shortage && !std::exchange(short_of_descriptors_, true)) {
      handler_(nullptr);
    } else if (!is_shortage) {
      short_of_descriptors_ = false;
    }
    return;
  }
  short_of_descriptors_ = false;
  std::optional<Peer> peer = IdentifyPeer(client.get());
  if (!peer) {
    handler_(nullptr);
    return;
  }
  handler_(std::make_shared<IpcConnection>(std::move(client), std::move(*peer),
                                           service_.c_str()));
}

}  // namespace zu::platform
