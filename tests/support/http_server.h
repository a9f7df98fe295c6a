// A small HTTP server on the loopback interface.
#ifndef ZU_TESTS_SUPPORT_HTTP_SERVER_H_
#define ZU_TESTS_SUPPORT_HTTP_SERVER_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "support/file_descriptor.h"

namespace zu::test {

struct HttpServerRequest {
  std::string method;
  std::string target;
  std::string body;
};

// Serves one request after the other on a thread of its own, until it is
// destroyed. Failing to start throws std::runtime_error.
class HttpServer {
 public:
  // The body of the answer, whose status is then 200. Absent: the client gets
  // no answer, on a connection that stays open.
  using Handler =
      std::function<std::optional<std::string>(const HttpServerRequest&)>;

  explicit HttpServer(Handler handler);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // "http://127.0.0.1:PORT", or with another name for the same place.
  std::string url(const std::string& host = "127.0.0.1") const;

 private:
  void Serve();

  const Handler handler_;
  FileDescriptor listener_;
  uint16_t port_ = 0;
  std::thread thread_;
};

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_HTTP_SERVER_H_
