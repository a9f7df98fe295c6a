#include "tests/support/http_server.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <algorithm>
#include <stdexcept>
#include <vector>

namespace zu::test {
namespace {

// Absent when the client breaks off.
std::optional<HttpServerRequest> ReadRequest(int connection) {
  std::string text;
  for (;;) {
    char buffer[4096];
    const ssize_t size = ::recv(connection, buffer, sizeof(buffer), 0);
    if (size <= 0) return std::nullopt;
    text.append(buffer, static_cast<size_t>(size));
    const size_t head = text.find("\r\n\r\n");
    if (head == text.npos) continue;
    const size_t field = text.find("Content-Length: ");
    const size_t length =
        field < head ? std::stoul(text.substr(field + 16)) : 0;
    if (text.size() < head + 4 + length) continue;
    const size_t first = text.find(' ');
    const size_t second = text.find(' ', first + 1);
    return HttpServerRequest{text.substr(0, first),
                             text.substr(first + 1, second - first - 1),
                             text.substr(head + 4)};
  }
}

}  // namespace

HttpServer::HttpServer(Handler handler)
    : handler_(std::move(handler)),
      listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof(address);
  if (::bind(listener_.get(), generic, size) != 0 ||
      ::listen(listener_.get(), 16) != 0 ||
      ::getsockname(listener_.get(), generic, &size) != 0) {
    throw std::runtime_error("HTTP server");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread(&HttpServer::Serve, this);
}

HttpServer::~HttpServer() {
  ::shutdown(listener_.get(), SHUT_RDWR);  // Ends the accept.
  thread_.join();
}

std::string HttpServer::url(const std::string& host) const {
  return "http://" + host + ":" + std::to_string(port_);
}

void HttpServer::Serve() {
  std::vector<FileDescriptor> unanswered;
  for (;;) {
    FileDescriptor connection(
        ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection.valid()) return;
    const timeval timeout{.tv_sec = 10, .tv_usec = 0};
    ::setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout,
                 sizeof(timeout));
    const auto request = ReadRequest(connection.get());
    if (!request) continue;
    const std::optional<std::string> body = handler_(*request);
    if (!body) {
      unanswered.push_back(std::move(connection));
      continue;
    }
    const std::string answer =
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body->size()) +
        "\r\nConnection: close\r\n\r\n" + *body;
    (void)!::send(connection.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
  }
}

}  // namespace zu::test
