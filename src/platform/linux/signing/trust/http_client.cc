#include "platform/linux/signing/trust/http_client.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <tuple>

#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

using std::chrono::milliseconds;

// Of one name. Each gets its share of the time.
constexpr size_t kMaxAddresses = 8;

struct FreeAddresses {
  void operator()(addrinfo* list) const noexcept { ::freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

// What one wait may take; zero when the time is over.
milliseconds TimeLeft(Deadline deadline) {
  constexpr milliseconds kLongestWait{3600 * 1000};
  const auto left = deadline - std::chrono::steady_clock::now();
  if (left >= kLongestWait) return kLongestWait;
  return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(left));
}

bool WaitFor(int descriptor, short events, Deadline deadline) {
  for (;;) {
    const milliseconds left = TimeLeft(deadline);
    if (left == milliseconds(0)) return false;
    pollfd waiting{descriptor, events, 0};
    const int ready = ::poll(&waiting, 1, static_cast<int>(left.count()));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
}

// A question that the C library answers on a thread of its own.
struct NameQuery {
  explicit NameQuery(const HttpUrl& url) : host(url.host), port(url.port) {
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    query.ar_name = host.c_str();
    query.ar_service = port.c_str();
    query.ar_request = &hints;
  }

  const std::string host;
  const std::string port;
  addrinfo hints{};
  gaicb query{};
};

// Look-ups know no deadline. The thread that waits for one is the C library's:
// its code stays when this library is unloaded, and it keeps no process from
// exiting.
Addresses LookUpName(const HttpUrl& url, Deadline deadline) {
  auto asked = std::make_unique<NameQuery>(url);
  gaicb* const query = &asked->query;
  gaicb* queries[] = {query};
  if (::getaddrinfo_a(GAI_NOWAIT, queries, 1, nullptr) != 0) return nullptr;
  while (::gai_error(query) == EAI_INPROGRESS) {
    const milliseconds left = TimeLeft(deadline);
    if (left == milliseconds(0)) break;
    const timespec timeout{left.count() / 1000,
                           (left.count() % 1000) * 1000000};
    ::gai_suspend(queries, 1, &timeout);
  }
  if (::gai_error(query) == EAI_INPROGRESS &&
      ::gai_cancel(query) == EAI_NOTCANCELED) {
    // It will be written to whenever the look-up ends, so it is left behind.
    std::ignore = asked.release();
    return nullptr;
  }
  return Addresses(query->ar_result);
}

Addresses LookUp(const HttpUrl& url, Deadline deadline) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* numeric = nullptr;
  if (::getaddrinfo(url.host.c_str(), url.port.c_str(), &hints, &numeric) ==
      0) {
    return Addresses(numeric);
  }
  return LookUpName(url, deadline);
}

FileDescriptor ConnectTo(const addrinfo& address, Deadline deadline) {
  FileDescriptor connection(::socket(
      address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!connection.valid()) return {};
  if (::connect(connection.get(), address.ai_addr, address.ai_addrlen) == 0) {
    return connection;
  }
  // An interrupted connect goes on by itself.
  if (errno != EINPROGRESS && errno != EINTR) return {};
  int error = 0;
  socklen_t size = sizeof(error);
  if (!WaitFor(connection.get(), POLLOUT, deadline) ||
      ::getsockopt(connection.get(), SOL_SOCKET, SO_ERROR, &error, &size) !=
          0 ||
      error != 0) {
    return {};
  }
  return connection;
}

FileDescriptor ConnectToAny(const addrinfo* list, Deadline deadline) {
  size_t left = 0;
  for (const addrinfo* at = list; at != nullptr; at = at->ai_next) ++left;
  left = std::min(left, kMaxAddresses);
  for (; left > 0; --left, list = list->ai_next) {
    FileDescriptor connection = ConnectTo(*list, PartOf(deadline, left));
    if (connection.valid()) return connection;
  }
  return {};
}

bool SendAll(int connection, std::string_view text, Deadline deadline) {
  while (!text.empty()) {
    if (!WaitFor(connection, POLLOUT, deadline)) return false;
    const ssize_t sent = RetryOnInterrupt([&] {
      return ::send(connection, text.data(), text.size(), MSG_NOSIGNAL);
    });
    if (sent < 0 && errno != EAGAIN) return false;
    if (sent > 0) text.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

std::string Compose(const HttpRequest& request, const HttpUrl& url) {
  const bool is_post = !request.content_type.empty();
  std::string text = (is_post ? "POST " : "GET ") + url.target +
                     " HTTP/1.1\r\nHost: " + url.authority +
                     "\r\nConnection: close\r\n";
  if (is_post) {
    text.append("Content-Type: ")
        .append(request.content_type)
        .append("\r\nContent-Length: ")
        .append(std::to_string(request.body.size()))
        .append("\r\n");
  }
  text.append("\r\n").append(reinterpret_cast<const char*>(request.body.data()),
                             request.body.size());
  return text;
}

}  // namespace

std::optional<std::vector<std::byte>> ExchangeHttp(const HttpRequest& request,
                                                   Deadline deadline,
                                                   std::string& error) {
  const std::optional<HttpUrl> url = ParseHttpUrl(request.url);
  if (!url) {
    error = "the address is not supported";
    return std::nullopt;
  }
  const Addresses addresses = LookUp(*url, deadline);
  if (!addresses) {
    error = "the name cannot be resolved";
    return std::nullopt;
  }
  const FileDescriptor connection = ConnectToAny(addresses.get(), deadline);
  if (!connection.valid()) {
    error = "no connection";
    return std::nullopt;
  }
  if (!SendAll(connection.get(), Compose(request, *url), deadline)) {
    error = "the request cannot be sent";
    return std::nullopt;
  }

  HttpResponseReader reader;
  std::array<std::byte, 16 << 10> buffer;
  while (WaitFor(connection.get(), POLLIN, deadline)) {
    const ssize_t received = RetryOnInterrupt([&] {
      return ::recv(connection.get(), buffer.data(), buffer.size(), 0);
    });
    if (received < 0) {
      if (errno == EAGAIN) continue;
      error = "the connection broke";
      return std::nullopt;
    }
    const auto state = received == 0 ? reader.Finish()
                                     : reader.Consume(std::span(buffer).first(
                                           static_cast<size_t>(received)));
    if (state == HttpResponseReader::State::kComplete) return reader.TakeBody();
    if (state == HttpResponseReader::State::kFailed) {
      error = reader.error();
      return std::nullopt;
    }
  }
  error = "no answer in time";
  return std::nullopt;
}

}  // namespace zu::platform
