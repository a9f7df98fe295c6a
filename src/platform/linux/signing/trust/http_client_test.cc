#include "platform/linux/signing/trust/http_client.h"

#include <gtest/gtest.h>
#include <algorithm>

#include "tests/support/http_server.h"

namespace zu::platform {
namespace {

using State = HttpResponseReader::State;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Names are looked up on threads of the C library's own, which the thread
// sanitizer does not know of and stands still in.
#if defined(__SANITIZE_THREAD__)
constexpr bool kLooksUpNames = false;
#else
constexpr bool kLooksUpNames = true;
#endif

std::string TextOf(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// One line for each address: what it is taken apart into.
TEST(ParseHttpUrlTest, TakesAddressesApart) {
  const struct {
    std::string url;
    const char* parts = nullptr;  // Null: refused.
  } cases[] = {
      {"HTTP://a-b_c:8080/x/y?z#f", "a-b_c 8080 a-b_c:8080 /x/y?z"},
      {"http://[::1]:1?q", "::1 1 [::1]:1 /?q"},
      {"http://[::1]", "::1 80 [::1] /"},
      {"https://a/"},
      {"http://a:65536/"},
      {"http://u@a/"},
      {"http://a/x\r\nHost: b"},
      {std::string("http://a/\0", 10)},
  };
  for (const auto& c : cases) {
    const auto url = ParseHttpUrl(c.url);
    ASSERT_EQ(url.has_value(), c.parts != nullptr) << c.url;
    if (!url) continue;
    EXPECT_EQ(
        url->host + ' ' + url->port + ' ' + url->authority + ' ' + url->target,
        c.parts);
  }
}

TEST(HttpResponseReaderTest, ReadsOneResponse) {
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const std::string chunked = ok + "Transfer-Encoding: Chunked\r\n\r\n";
  const std::string long_head(kMaxHttpHeadSize, 'x');
  const std::string long_body(kMaxHttpResponseSize + 1, 'x');
  const struct {
    const char* name;
    std::string response;
    std::optional<std::string> body = std::nullopt;
  } cases[] = {
      {"length", ok + "content-LENGTH:  3 \r\n\r\nabcd", "abc"},
      {"until the end", "HTTP/1.0 200\nA: b\n\nab\n", "ab\n"},
      {"chunks", chunked + "2\r\nab\r\n01;x=\"y\"\r\nc\r\n0\r\nT: x\r\n\r\n",
       "abc"},
      {"a first answer", "HTTP/1.1 100 Go on\r\n\r\n" + ok + "\r\nx", "x"},
      {"too short", ok + "Content-Length: 3\r\n\r\nab"},
      {"trailer ends early", chunked + "0\r\n"},
      {"chunk that goes on", chunked + "2\r\nabc\r\n0\r\n\r\n"},
      {"size with a sign", chunked + "-1\r\nx"},
      {"size overflows", chunked + "10000000000000000\r\nx"},
      {"large chunk", chunked + "900000\r\n" + long_body},
      {"large body", ok + "Content-Length: 8388609\r\n\r\n"},
      {"large until the end", ok + "\r\n" + long_body},
      {"long head", ok + "A: " + long_head + "\r\n\r\n"},
      {"two lengths", ok + "Content-Length: 1\r\nContent-Length: 2\r\n\r\nab"},
      {"length and chunks",
       ok + "Content-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"},
      {"blank before the colon", ok + "A : b\r\n\r\n"},
      {"moved", "HTTP/1.1 301 M\r\nLocation: http://b/\r\n\r\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto bytes = std::as_bytes(std::span(c.response));
    for (size_t piece : {size_t{1}, bytes.size() + 1}) {
      piece = std::max(piece, bytes.size() >> 12);
      HttpResponseReader reader;
      for (size_t at = 0; at < bytes.size(); at += piece) {
        reader.Consume(bytes.subspan(at, std::min(piece, bytes.size() - at)));
      }
      const State state = reader.Finish();
      EXPECT_EQ(state == State::kComplete, c.body.has_value());
      EXPECT_EQ(state == State::kFailed, !reader.error().empty());
      EXPECT_TRUE(!c.body || TextOf(reader.TakeBody()) == *c.body);
    }
  }
}

TEST(ExchangeHttpTest, AsksWithinTheDeadline) {
  const std::string large(300000, 'x');
  test::HttpServer server(
      [](const test::HttpServerRequest& request) -> std::optional<std::string> {
        if (request.target == "/silent") return std::nullopt;
        return request.method + " " + request.target + " " + request.body;
      });
  const std::string refused = test::HttpServer(nullptr).url();
  const struct {
    std::string url;
    std::string body;
    std::string answer = "";  // None.
    milliseconds time{10000};
  } cases[] = {
      {server.url() + "/a?b", "", "GET /a?b "},
      {server.url(), large, "POST / " + large},
      {server.url() + "/silent", "", "", milliseconds(200)},
      {refused, ""},
      {server.url("localhost"), "question", "POST / question"},
      {"http://name.invalid", "", "", milliseconds(200)},
  };
  for (const auto& c : cases) {
    if (!kLooksUpNames && !c.url.starts_with("http://127.")) continue;
    const auto start = steady_clock::now();
    std::string error;
    const auto answer =
        ExchangeHttp({.url = c.url,
                      .content_type = c.body.empty() ? "" : "text/plain",
                      .body = std::as_bytes(std::span(c.body))},
                     start + c.time, error);
    SCOPED_TRACE(c.url + ": " + error);
    EXPECT_EQ(answer ? TextOf(*answer) : "", c.answer);
    EXPECT_EQ(error.empty(), answer.has_value());
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));
  }
}

}  // namespace
}  // namespace zu::platform
