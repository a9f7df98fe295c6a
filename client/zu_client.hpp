// ZuClient for C++: the C interface with its memory owned by objects. Results
// are values and nothing throws. What the calls mean, their deadlines and
// their statuses are documented in ZuClient.h.
#ifndef ZU_CLIENT_HPP_
#define ZU_CLIENT_HPP_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "ZuClient.h"

namespace zu {

// What a call brought: a status and, when that is ZU_CLIENT_OK, the bytes.
class ClientText {
 public:
  ClientText(ZuClientStatus status, void* data, size_t size) noexcept
      : status_(status), data_(static_cast<char*>(data)), size_(size) {}

  explicit operator bool() const noexcept { return status_ == ZU_CLIENT_OK; }
  ZuClientStatus status() const noexcept { return status_; }
  const char* status_text() const noexcept {
    return ZuClientStatusText(status_);
  }
  // Valid as long as this object; a NUL stands behind it. Empty without data.
  std::string_view text() const noexcept { return {data_.get(), size_}; }

 private:
  struct Free {
    void operator()(char* data) const noexcept { std::free(data); }
  };
  ZuClientStatus status_;
  std::unique_ptr<char, Free> data_;
  size_t size_;
};

// A connection, or none: calls on none return ZU_CLIENT_BAD_ARGUMENT. Closed by
// its destructor, which no other thread's call may overlap.
class Client {
 public:
  Client() = default;
  // Takes over a connection that the C interface made.
  explicit Client(ZuClient* client) noexcept : client_(client) {}

  // Closes what it had and connects. Null: the agent's service.
  ZuClientStatus Connect(const char* service = nullptr,
                         int32_t timeout_ms = 5000) noexcept {
    ZuClient* client = nullptr;
    const ZuClientStatus status = ZuClientConnect(service, timeout_ms, &client);
    client_.reset(client);
    return status;
  }
  void Disconnect() noexcept { ZuClientDisconnect(client_.get()); }
  explicit operator bool() const noexcept { return client_ != nullptr; }
  ZuClient* get() const noexcept { return client_.get(); }

  [[nodiscard]] ClientText Request(std::string_view request,
                                   int32_t timeout_ms) noexcept {
    void* reply = nullptr;
    size_t size = 0;
    const ZuClientStatus status =
        ZuClientRequest(client_.get(), request.data(), request.size(),
                        timeout_ms, &reply, &size);
    return {status, reply, size};
  }
  ZuClientStatus Send(std::string_view message, int32_t timeout_ms) noexcept {
    return ZuClientSend(client_.get(), message.data(), message.size(),
                        timeout_ms);
  }
  [[nodiscard]] ClientText Receive(int32_t timeout_ms) noexcept {
    void* message = nullptr;
    size_t size = 0;
    const ZuClientStatus status =
        ZuClientReceive(client_.get(), timeout_ms, &message, &size);
    return {status, message, size};
  }
  uint64_t LostBroadcasts() noexcept {
    return ZuClientLostBroadcasts(client_.get());
  }

 private:
  struct Close {
    void operator()(ZuClient* client) const noexcept { ZuClientClose(client); }
  };
  std::unique_ptr<ZuClient, Close> client_;
};

}  // namespace zu

#endif  // ZU_CLIENT_HPP_
