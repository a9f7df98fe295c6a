#include "linux/connection.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "build_values.h"
#include "linux/connect.h"

using zu::client::Block;
using zu::client::Bytes;
using zu::client::MakeBlock;
using zu::client::Sink;
using zu::client::SocketTimeout;
using zu::platform::FrameHeader;
using zu::platform::FrameKind;
using zu::platform::kFrameHasData;
using zu::platform::kFrameInRegion;

// ------------------------------------------------------------------- calls --

ZuClientStatus ZuClient::Request(Bytes body, int32_t timeout_ms, Sink& reply) {
  Deadline deadline(timeout_ms);
  Lock lock(mutex_);
  ZuClientStatus status = TakeTurn(lock, deadline);
  if (status != ZU_CLIENT_OK) return status;
  // The reply can be there before sending has returned.
  Waiter waiter{.request = ++last_request_, .sink = reply};
  Link(waiter);
  const bool in_region = LendRegion(waiter.request, body.size);

  lock.unlock();
  bool started = false;
  status = SendFrame(FrameKind::kRequest, waiter.request, body, in_region,
                     deadline, started);
  lock.lock();
  EndTurn();

  if (status != ZU_CLIENT_OK) {
    // The server waits for the rest of a frame that has begun.
    if (started) Break(ZU_CLIENT_DISCONNECTED);
    if (in_region && !started) region_state_ = RegionState::kFree;
    if (!waiter.done) Unlink(waiter);
    return status;
  }
  status = Await(lock, waiter, deadline);
  if (waiter.in_region) {
    // Copied before anybody looks at it: the server can still write there.
    lock.unlock();
    status = reply.Copy(region_.bytes(), waiter.region_bytes);
    lock.lock();
    region_state_ = RegionState::kFree;
  }
  return status;
}

ZuClientStatus ZuClient::Send(Bytes body, int32_t timeout_ms) {
  Deadline deadline(timeout_ms);
  Lock lock(mutex_);
  ZuClientStatus status = TakeTurn(lock, deadline);
  if (status != ZU_CLIENT_OK) return status;
  lock.unlock();
  bool started = false;
  status = SendFrame(FrameKind::kMessage, 0, body, false, deadline, started);
  lock.lock();
  EndTurn();
  if (status != ZU_CLIENT_OK && started) Break(ZU_CLIENT_DISCONNECTED);
  return status;
}

ZuClientStatus ZuClient::Receive(int32_t timeout_ms, Sink& message) {
  Deadline deadline(timeout_ms);
  Lock lock(mutex_);
  if (!broadcasts_.empty()) return message.Take(broadcasts_.Pop());
  if (broken_ != ZU_CLIENT_OK) return broken_;
  Waiter waiter{.sink = message};
  Link(waiter);
  return Await(lock, waiter, deadline);
}

void ZuClient::Disconnect() {
  const Lock lock(mutex_);
  Break(ZU_CLIENT_DISCONNECTED);
}

uint64_t ZuClient::LostBroadcasts() {
  const Lock lock(mutex_);
  return broadcasts_.lost();
}

// ----------------------------------------------------------------- sending --

bool ZuClient::LendRegion(uint64_t request, size_t size) {
  if (size < zu::platform::kRegionThreshold ||
      size > zu::platform::kRegionSize || region_state_ != RegionState::kFree ||
      region_refused_) {
    return false;
  }
  if (region_.bytes() == nullptr && !region_.Create()) {
    region_refused_ = true;
    return false;
  }
  region_state_ = RegionState::kLent;
  region_request_ = request;
  return true;
}

ZuClientStatus ZuClient::TakeTurn(Lock& lock, Deadline& deadline) {
  bool in_time = true;
  while (sending_ && broken_ == ZU_CLIENT_OK) {
    if (!in_time) return ZU_CLIENT_TIMED_OUT;
    in_time = deadline.Wait(turn_, lock);
  }
  if (broken_ != ZU_CLIENT_OK) return broken_;
  sending_ = true;
  return ZU_CLIENT_OK;
}

void ZuClient::EndTurn() {
  sending_ = false;
  turn_.notify_one();
}

ZuClientStatus ZuClient::SendFrame(FrameKind kind, uint64_t request, Bytes body,
                                   bool in_region, Deadline& deadline,
                                   bool& started) {
  FrameHeader region_header;
  FrameHeader header;
  header.kind = kind;
  header.request = request;
  header.length = body.size;
  if (body.data != nullptr) header.flags |= kFrameHasData;

  iovec parts[3];
  msghdr message = {};
  message.msg_iov = parts;
  const auto add = [&](const void* bytes, size_t size) {
    parts[message.msg_iovlen++] = {const_cast<void*>(bytes), size};
  };
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  if (!in_region) {
    add(&header, sizeof(header));
    if (body.size != 0) add(body.data, body.size);
  } else {
    std::memcpy(region_.bytes(), body.data, body.size);
    header.flags |= kFrameInRegion;
    if (region_.descriptor() >= 0) {
      region_header.kind = FrameKind::kRegion;
      region_header.length = zu::platform::kRegionSize;
      add(&region_header, sizeof(region_header));
      message.msg_control = control;
      message.msg_controllen = sizeof(control);
      cmsghdr* const entry = CMSG_FIRSTHDR(&message);
      entry->cmsg_level = SOL_SOCKET;
      entry->cmsg_type = SCM_RIGHTS;
      entry->cmsg_len = CMSG_LEN(sizeof(int));
      const int descriptor = region_.descriptor();
      std::memcpy(CMSG_DATA(entry), &descriptor, sizeof(descriptor));
    }
    add(&header, sizeof(header));
  }

  while (message.msg_iovlen != 0) {
    const ssize_t count =
        ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) {
        if (!deadline.Poll(socket_.get(), POLLOUT)) return ZU_CLIENT_TIMED_OUT;
        continue;
      }
      if (errno == EPIPE || errno == ECONNRESET) return ZU_CLIENT_DISCONNECTED;
      const bool short_of_memory = errno == ENOMEM || errno == ENOBUFS;
      return short_of_memory ? ZU_CLIENT_OUT_OF_MEMORY : ZU_CLIENT_SYSTEM_ERROR;
    }
    started = true;
    // The descriptor went with the first byte.
    if (message.msg_control != nullptr) region_.CloseDescriptor();
    message.msg_control = nullptr;
    message.msg_controllen = 0;
    size_t sent = static_cast<size_t>(count);
    while (message.msg_iovlen != 0 && sent >= message.msg_iov->iov_len) {
      sent -= message.msg_iov->iov_len;
      ++message.msg_iov;
      --message.msg_iovlen;
    }
    if (message.msg_iovlen != 0) {
      iovec& part = *message.msg_iov;
      part.iov_base = static_cast<char*>(part.iov_base) + sent;
      part.iov_len -= sent;
    }
  }
  return ZU_CLIENT_OK;
}

// ----------------------------------------------------------------- waiting --

void ZuClient::Link(Waiter& waiter) {
  Waiter** end = &waiters_;
  while (*end != nullptr) end = &(*end)->next;
  *end = &waiter;
}

void ZuClient::Unlink(const Waiter& waiter) {
  Waiter** place = &waiters_;
  while (*place != &waiter) place = &(*place)->next;
  *place = waiter.next;
}

ZuClient::Waiter* ZuClient::Find(uint64_t request) {
  Waiter* waiter = waiters_;
  while (waiter != nullptr && waiter->request != request) waiter = waiter->next;
  return waiter;
}

void ZuClient::Finish(Waiter& waiter, ZuClientStatus status) {
  Unlink(waiter);
  waiter.status = status;
  waiter.done = true;
  waiter.wake.notify_one();
}

void ZuClient::PassReadingOn() {
  if (reading_) return;
  for (Waiter* waiter = waiters_; waiter != nullptr; waiter = waiter->next) {
    if (waiter->asleep) {
      waiter->wake.notify_one();
      return;
    }
  }
}

ZuClientStatus ZuClient::Await(Lock& lock, Waiter& waiter, Deadline& deadline) {
  bool in_time = true;
  while (!waiter.done && reading_ && in_time) {
    waiter.asleep = true;
    in_time = deadline.Wait(waiter.wake, lock);
    waiter.asleep = false;
  }
  if (!waiter.done && !reading_) {
    reading_ = true;
    while (!waiter.done) {
      lock.unlock();
      const ZuClientStatus status = ReadSome(deadline);
      lock.lock();
      if (status == ZU_CLIENT_TIMED_OUT) break;
      if (status != ZU_CLIENT_OK) {
        Break(status);
      } else if (!Dispatch()) {
        Break(ZU_CLIENT_PROTOCOL_ERROR);
      }
    }
    reading_ = false;
  }
  if (!waiter.done) {
    Unlink(waiter);
    waiter.status = ZU_CLIENT_TIMED_OUT;
  }
  PassReadingOn();
  return waiter.status;
}

void ZuClient::Break(ZuClientStatus status) {
  if (broken_ != ZU_CLIENT_OK) return;
  broken_ = status;
  // Wakes the reading thread, and tells the server.
  ::shutdown(socket_.get(), SHUT_RDWR);
  while (waiters_ != nullptr) Finish(*waiters_, status);
  turn_.notify_all();
}

// ----------------------------------------------------------------- reading --

ZuClientStatus ZuClient::ReadSome(Deadline& deadline) {
  char* place = buffer_ + end_;
  size_t room = kBufferSize - end_;
  if (long_left_ != 0) {
    if (long_body_.data != nullptr) {
      place = long_body_.data.get() + (long_body_.size - long_left_);
      room = long_left_;
    } else {
      room = std::min(room, long_left_);
    }
  }

  // A round trip is one call each way: the socket itself keeps the deadline
  // when all of it is left, and is told only when it is another one.
  const bool block =
      deadline.infinite() || (deadline.whole() && deadline.timeout_ms() != 0);
  if (!block) {
    if (!deadline.Poll(socket_.get(), POLLIN)) return ZU_CLIENT_TIMED_OUT;
  } else if (receive_timeout_ms_ != deadline.timeout_ms()) {
    const timeval limit = SocketTimeout(deadline.timeout_ms());
    if (::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit,
                     sizeof(limit)) != 0) {
      return ZU_CLIENT_SYSTEM_ERROR;
    }
    receive_timeout_ms_ = deadline.timeout_ms();
  }
  deadline.Touch();
  const ssize_t count =
      ::recv(socket_.get(), place, room, block ? 0 : MSG_DONTWAIT);
  if (count == 0) return ZU_CLIENT_DISCONNECTED;
  if (count < 0) {
    if (errno == EINTR || errno == EAGAIN) return ZU_CLIENT_OK;
    return errno == ECONNRESET ? ZU_CLIENT_DISCONNECTED
                               : ZU_CLIENT_SYSTEM_ERROR;
  }
  if (long_left_ != 0) {
    long_left_ -= static_cast<size_t>(count);
  } else {
    end_ += static_cast<size_t>(count);
  }
  return ZU_CLIENT_OK;
}

bool ZuClient::IsValid(const FrameHeader& header) const {
  if (header.magic != FrameHeader().magic ||
      header.version != FrameHeader().version ||
      header.length > zu::platform::kRegionSize) {
    return false;
  }
  const bool has_data = (header.flags & kFrameHasData) != 0;
  const bool in_region = (header.flags & kFrameInRegion) != 0;
  if ((header.flags & ~(kFrameHasData | kFrameInRegion)) != 0 ||
      (!has_data && (in_region || header.length != 0))) {
    return false;
  }
  switch (header.kind) {
    case FrameKind::kMessage:
      return header.request == 0 && !in_region;
    case FrameKind::kNoReply:
    case FrameKind::kReply:
      // One whose request is not waited for any more is late, not wrong.
      return header.request != 0 && header.request <= last_request_ &&
             (!has_data || header.kind == FrameKind::kReply) &&
             (!in_region || (region_state_ == RegionState::kLent &&
                             region_request_ == header.request));
    default:
      return false;
  }
}

bool ZuClient::Dispatch() {
  if (long_frame_.has_value()) {
    if (long_left_ != 0) return true;
    Deliver(*long_frame_, nullptr, std::move(long_body_));
    long_frame_.reset();
    return true;
  }
  size_t begin = 0;
  while (end_ - begin >= sizeof(FrameHeader)) {
    FrameHeader header;
    std::memcpy(&header, buffer_ + begin, sizeof(header));
    if (!IsValid(header)) return false;
    const bool in_region = (header.flags & kFrameInRegion) != 0;
    const size_t size = in_region ? 0 : header.length;
    const char* const body = buffer_ + begin + sizeof(header);
    const size_t present = end_ - begin - sizeof(header);
    if (present < size) {
      if (sizeof(header) + size <= kBufferSize) break;
      const bool wanted =
          header.kind == FrameKind::kMessage || Find(header.request) != nullptr;
      if (wanted) long_body_ = MakeBlock(size);
      if (long_body_.data != nullptr) {
        std::memcpy(long_body_.data.get(), body, present);
      }
      long_frame_ = header;
      long_left_ = size - present;
      begin = end_;
      break;
    }
    Deliver(header, body, Block());
    begin += sizeof(header) + size;
  }
  end_ -= begin;
  if (begin != 0 && end_ != 0) std::memmove(buffer_, buffer_ + begin, end_);
  return true;
}

void ZuClient::Deliver(const FrameHeader& header, const char* body,
                       Block block) {
  const bool has_data = (header.flags & kFrameHasData) != 0;
  const bool in_region = (header.flags & kFrameInRegion) != 0;
  // Broadcasts are waited for under number 0, which is theirs.
  Waiter* const waiter = Find(header.request);
  if (header.kind == FrameKind::kMessage && waiter == nullptr && has_data) {
    if (body != nullptr) {
      block = MakeBlock(header.length);
      if (block.data != nullptr) {
        std::memcpy(block.data.get(), body, header.length);
      }
    }
    broadcasts_.Push(std::move(block));
    return;
  }
  if (region_state_ == RegionState::kLent &&
      region_request_ == header.request) {
    region_state_ = in_region && waiter != nullptr ? RegionState::kReading
                                                   : RegionState::kFree;
  }
  if (waiter == nullptr) return;
  if (header.kind == FrameKind::kNoReply) {
    Finish(*waiter, ZU_CLIENT_NO_REPLY);
  } else if (in_region) {
    waiter->in_region = true;
    waiter->region_bytes = header.length;
    Finish(*waiter, ZU_CLIENT_OK);
  } else if (body != nullptr && has_data) {
    Finish(*waiter, waiter->sink.Copy(body, header.length));
  } else if (has_data) {
    Finish(*waiter, waiter->sink.Take(std::move(block)));
  } else if (header.kind == FrameKind::kReply) {
    Finish(*waiter, ZU_CLIENT_NO_DATA);
  }
}

// ---------------------------------------------------------------- the seam --

namespace zu::client {

ZuClientStatus Connect(const char* service, int32_t timeout_ms,
                       ZuClient*& client) {
  FileDescriptor socket;
  const ZuClientStatus status =
      ConnectTo(ZU_SOCKET_DIRECTORY, service, timeout_ms, socket);
  if (status == ZU_CLIENT_OK) client = new ZuClient(std::move(socket));
  return status;
}

void Close(ZuClient* client) { delete client; }

void Disconnect(ZuClient& client) { client.Disconnect(); }

ZuClientStatus Request(ZuClient& client, Bytes body, int32_t timeout_ms,
                       Sink& reply) {
  return client.Request(body, timeout_ms, reply);
}

ZuClientStatus Send(ZuClient& client, Bytes body, int32_t timeout_ms) {
  return client.Send(body, timeout_ms);
}

ZuClientStatus Receive(ZuClient& client, int32_t timeout_ms, Sink& message) {
  return client.Receive(timeout_ms, message);
}

uint64_t LostBroadcasts(ZuClient& client) { return client.LostBroadcasts(); }

}  // namespace zu::client
