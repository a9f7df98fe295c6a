// The text of HTTP/1.x: addresses and responses. Pure.
#ifndef ZU_PLATFORM_LINUX_SIGNING_TRUST_HTTP_MESSAGE_H_
#define ZU_PLATFORM_LINUX_SIGNING_TRUST_HTTP_MESSAGE_H_

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zu::platform {

struct HttpUrl {
  std::string host;       // A name or a numeric address, without brackets.
  std::string port;       // 1 to 65535.
  std::string authority;  // Host and port as they were written.
  std::string target;     // Path and query.
};

// http://host[:port][/path][?query][#fragment]. Absent for everything else,
// user names and characters that an address must not hold among it: all parts
// can go into a request as they are.
std::optional<HttpUrl> ParseHttpUrl(std::string_view url);

// Largest head of a response.
inline constexpr size_t kMaxHttpHeadSize = 64 << 10;
// Largest body, and largest sum of what a chunked encoding puts between its
// pieces.
inline constexpr size_t kMaxHttpResponseSize = 8 << 20;

// Takes one response apart as it arrives. How it is cut changes nothing.
class HttpResponseReader {
 public:
  enum class State {
    kIncomplete,
    kComplete,  // Status 200, with all of its body.
    kFailed,    // Another status, malformed or too large.
  };

  // What follows a complete response is ignored.
  State Consume(std::span<const std::byte> bytes);
  // The connection has ended.
  State Finish();

  // Of a complete response.
  std::vector<std::byte> TakeBody() { return std::move(body_); }
  // Of a failed one: why, for people.
  const std::string& error() const { return error_; }

 private:
  enum class Part {
    kStatusLine,
    kFields,
    kBody,       // `left_` bytes.
    kUntilEnd,   // A body that ends with the connection.
    kChunkSize,  // Then `left_` bytes of kChunk and an empty line.
    kChunk,
    kChunkEnd,
    kTrailer,
  };

  void TakeLine(std::string_view line);
  void TakeStatus(std::string_view line);
  void TakeField(std::string_view line);
  void TakeChunkSize(std::string_view line);
  void EndHead();
  void Fail(std::string error);

  State state_ = State::kIncomplete;
  Part part_ = Part::kStatusLine;
  std::string line_;     // Its beginning, until its end has come.
  size_t overhead_ = 0;  // All that was not body so far.
  unsigned status_ = 0;
  std::optional<size_t> length_;
  bool chunked_ = false;
  size_t left_ = 0;
  std::vector<std::byte> body_;
  std::string error_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_TRUST_HTTP_MESSAGE_H_
