#include "platform/linux/ipc/connection.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/linux/ipc/event_loop.h"

namespace zu::platform {
namespace {

// What a client may leave unread: a reply of the greatest size and some more.
constexpr size_t kMaxOutgoing = 8u << 20;

}  // namespace

IpcMessage::~IpcMessage() {
  if (waiting) waiting->SendNoReply(header.request);
}

size_t IpcConnection::Outgoing::size() const {
  const bool inline_body =
      message && message->body && (header.flags & kFrameInRegion) == 0;
  return sizeof(header) + (inline_body ? header.length : 0);
}

void IpcConnection::Resume() {
  // The check that needed it is over.
  peer_.process.reset();
  if (!loop_ || !loop_->Add(shared_from_this())) Cancel();
}

void IpcConnection::Cancel() {
  const std::lock_guard lock(mutex_);
  Abort();
}

// The loop's thread sees the end of the stream and closes the socket; closed
// here, its number could already mean something else to that thread.
void IpcConnection::Abort() {
  aborted_ = true;
  outgoing_.clear();
  outgoing_size_ = 0;
  ::shutdown(socket_.get(), SHUT_RDWR);
}

bool IpcConnection::Write(Outgoing& frame) {
  const size_t size = frame.size();
  while (frame.sent < size) {
    iovec parts[2];
    size_t count = 0;
    if (frame.sent < sizeof(frame.header)) {
      parts[count++] = {
          reinterpret_cast<std::byte*>(&frame.header) + frame.sent,
          sizeof(frame.header) - frame.sent};
    }
    if (size > sizeof(frame.header)) {
      const size_t done =
          frame.sent - std::min(frame.sent, sizeof(frame.header));
      parts[count++] = {frame.message->body.get() + done,
                        size - sizeof(frame.header) - done};
    }
    msghdr header{};
    header.msg_iov = parts;
    header.msg_iovlen = count;
    const ssize_t sent = RetryOnInterrupt([&] {
      return ::sendmsg(socket_.get(), &header, MSG_DONTWAIT | MSG_NOSIGNAL);
    });
    if (sent == -1) {
      if (errno != EAGAIN) Abort();
      return false;
    }
    frame.sent += static_cast<size_t>(sent);
  }
  return true;
}

void IpcConnection::SendFrame(Outgoing frame) {
  const std::lock_guard lock(mutex_);
  if (aborted_) return;
  if (outgoing_.empty() && Write(frame)) return;
  if (aborted_) return;
  const size_t rest = frame.size() - frame.sent;
  if (outgoing_size_ + rest > kMaxOutgoing) {
    Abort();
    return;
  }
  if (outgoing_.empty()) loop_->WatchOutput(*this, true);
  outgoing_size_ += rest;
  outgoing_.push_back(std::move(frame));
}

void IpcConnection::Send(const IpcMessageRef& message) {
  if (message->request) message->request->waiting.reset();
  SendFrame({message, message->header});
}

void IpcConnection::SendNoReply(uint64_t request) {
  FrameHeader header;
  header.kind = FrameKind::kNoReply;
  header.request = request;
  SendFrame({nullptr, header});
}

void IpcConnection::Flush() {
  const std::lock_guard lock(mutex_);
  while (!outgoing_.empty()) {
    const size_t before = outgoing_.front().sent;
    const bool done = Write(outgoing_.front());
    if (aborted_) return;
    outgoing_size_ -= outgoing_.front().sent - before;
    if (!done) return;
    outgoing_.pop_front();
  }
  loop_->WatchOutput(*this, false);
}

// The kernel's word on who sent the bytes, and the descriptors that came along.
bool IpcConnection::TakeControl(const msghdr& message) {
  bool is_peer = false;
  bool good = (message.msg_flags & MSG_CTRUNC) == 0;
  for (const cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
       part = CMSG_NXTHDR(const_cast<msghdr*>(&message),
                          const_cast<cmsghdr*>(part))) {
    if (part->cmsg_level != SOL_SOCKET) continue;
    if (part->cmsg_type == SCM_CREDENTIALS) {
      ucred sender{};
      std::memcpy(&sender, CMSG_DATA(part), sizeof(sender));
      is_peer = sender.pid == peer_.pid;
    } else if (part->cmsg_type == SCM_RIGHTS) {
      const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      good = good && count == 1 && !passed_.valid() && !region_;
      for (size_t i = 0; i < count; ++i) {
        int descriptor = -1;
        std::memcpy(&descriptor, CMSG_DATA(part) + i * sizeof(int),
                    sizeof(descriptor));
        passed_.reset(descriptor);
      }
    }
  }
  return good && is_peer;
}

bool IpcConnection::HandleFrame(Frame frame) {
  const FrameHeader& header = frame.header;
  if (header.kind == FrameKind::kRegion) {
    if (region_ || !passed_.valid()) return false;
    region_ = Region::Map(std::move(passed_));
    return region_ != nullptr;
  }
  if (passed_.valid()) return false;
  const bool in_region = (header.flags & kFrameInRegion) != 0;
  if (in_region && !region_) return false;

  const auto message = std::make_shared<IpcMessage>();
  message->header = header;
  if (in_region) {
    message->region = region_;
  } else if (!frame.body.empty()) {
    message->body = std::move(frame.storage);
    if (!message->body) {
      message->body = AllocateBody(frame.body.size());
      if (!message->body) return false;
      std::memcpy(message->body.get(), frame.body.data(), frame.body.size());
    }
  }
  if (header.kind == FrameKind::kRequest) {
    message->waiting = shared_from_this();
  }
  handler_(IpcEvent::kMessage, message);
  return true;
}

bool IpcConnection::Receive(std::span<char> scratch) {
  const auto destination = assembler_.NextDestination(scratch);
  iovec parts[2] = {{destination.first.data(), destination.first.size()},
                    {destination.second.data(), destination.second.size()}};
  alignas(cmsghdr) char
      control[CMSG_SPACE(sizeof(ucred)) + CMSG_SPACE(sizeof(int))];
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t size = RetryOnInterrupt([&] {
    return ::recvmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  });
  if (size == -1) return errno == EAGAIN;
  if (size == 0) return false;
  // A descriptor may have come even when the rest is refused: it is taken, and
  // closed with the connection.
  if (!TakeControl(message) || !RunsSameImage(peer_)) return false;
  return assembler_.Consume(
      static_cast<size_t>(size), scratch,
      [this](Frame frame) { return HandleFrame(std::move(frame)); });
}

void IpcConnection::End() {
  handler_(IpcEvent::kInvalid, nullptr);
  Cancel();
  // The handler keeps this connection alive, and that ends here.
  handler_ = nullptr;
}

}  // namespace zu::platform
