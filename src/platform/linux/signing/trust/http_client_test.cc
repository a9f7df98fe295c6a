#include "platform/linux/signing/trust/http_client.h"

#include <gtest/gtest.h>
#include <algorithm>

namespace zu::platform {
namespace {

using State = HttpResponseReader::State;

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
      {"https://a/"},
      {"http://a:65536/"},
      {"http://u@a/"},
      {"http://a/x\r\nHost: b"},
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
      {"size overflows", chunked + "10000000000000000\r\nx"},
      {"large chunk", chunked + "900000\r\n" + long_body},
      {"large body", ok + "Content-Length: 8388609\r\n\r\n"},
      {"long head", ok + "A: " + long_head + "\r\n\r\n"},
      {"length and chunks",
       ok + "Content-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"},
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

}  // namespace
}  // namespace zu::platform
