#include "platform/linux/signing/trust/http_message.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>

namespace zu::platform {
namespace {

// Characters by their meaning in ASCII, whatever the host's locale.
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsAlphanumeric(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool IsVisible(char c) { return c > ' ' && c <= '~'; }
bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsInFieldName(char c) {
  return IsAlphanumeric(c) ||
         std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}
bool IsInFieldValue(char c) {
  return c == '\t' || (static_cast<unsigned char>(c) >= ' ' && c != 0x7f);
}
bool IsInHostName(char c) {
  return IsAlphanumeric(c) || c == '-' || c == '.' || c == '_';
}
bool IsInIpv6Address(char c) {
  return IsDigit(c) || c == ':' || c == '.' || (c >= 'a' && c <= 'f') ||
         (c >= 'A' && c <= 'F');
}

template <typename Predicate>
bool All(std::string_view text, Predicate predicate) {
  return !text.empty() && std::all_of(text.begin(), text.end(), predicate);
}

bool EqualIgnoringCase(std::string_view text, std::string_view lower) {
  return std::equal(text.begin(), text.end(), lower.begin(), lower.end(),
                    [](char a, char b) {
                      return (a >= 'A' && a <= 'Z' ? a + ('a' - 'A') : a) == b;
                    });
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

// All of `text` as a number; neither sign nor blanks.
std::optional<size_t> ParseNumber(std::string_view text, int base) {
  size_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

}  // namespace

std::optional<HttpUrl> ParseHttpUrl(std::string_view url) {
  constexpr std::string_view kScheme = "http://";
  if (!All(url, IsVisible) ||
      !EqualIgnoringCase(url.substr(0, kScheme.size()), kScheme)) {
    return std::nullopt;
  }
  url.remove_prefix(kScheme.size());
  url = url.substr(0, url.find('#'));
  const std::string_view authority = url.substr(0, url.find_first_of("/?"));
  const std::string_view target = url.substr(authority.size());

  const bool is_ipv6 = authority.starts_with('[');
  const size_t host_end = is_ipv6 ? authority.find(']') : authority.find(':');
  if (is_ipv6 && host_end == authority.npos) return std::nullopt;
  const std::string_view host = is_ipv6 ? authority.substr(1, host_end - 1)
                                        : authority.substr(0, host_end);
  if (host.size() > 255 ||
      !(is_ipv6 ? All(host, IsInIpv6Address) : All(host, IsInHostName))) {
    return std::nullopt;
  }
  std::string_view port = authority.substr(
      std::min(authority.size(), host_end + (is_ipv6 ? 1 : 0)));
  if (port.empty()) {
    port = ":80";
  } else if (!port.starts_with(':')) {
    return std::nullopt;
  }
  port.remove_prefix(1);
  const std::optional<size_t> number = ParseNumber(port, 10);
  if (!number || *number == 0 ||
      *number > std::numeric_limits<uint16_t>::max()) {
    return std::nullopt;
  }
  return HttpUrl{std::string(host), std::to_string(*number),
                 std::string(authority),
                 (target.starts_with('/') ? "" : "/") + std::string(target)};
}

HttpResponseReader::State HttpResponseReader::Consume(
    std::span<const std::byte> bytes) {
  while (!bytes.empty() && state_ == State::kIncomplete) {
    if (part_ == Part::kBody || part_ == Part::kChunk ||
        part_ == Part::kUntilEnd) {
      const auto piece = bytes.first(std::min(bytes.size(), left_));
      if (piece.size() > kMaxHttpResponseSize - body_.size()) {
        Fail("the response is too large");
        break;
      }
      body_.insert(body_.end(), piece.begin(), piece.end());
      bytes = bytes.subspan(piece.size());
      left_ -= piece.size();
      if (left_ == 0) {
        if (part_ == Part::kBody) state_ = State::kComplete;
        part_ = Part::kChunkEnd;
      }
      continue;
    }
    const auto size = static_cast<size_t>(
        std::find(bytes.begin(), bytes.end(), std::byte{'\n'}) - bytes.begin());
    const size_t taken = std::min(size + 1, bytes.size());
    overhead_ += taken;
    const bool in_head = part_ == Part::kStatusLine || part_ == Part::kFields;
    if (overhead_ > (in_head ? kMaxHttpHeadSize : kMaxHttpResponseSize)) {
      Fail("the response is too large");
      break;
    }
    line_.append(reinterpret_cast<const char*>(bytes.data()), size);
    bytes = bytes.subspan(taken);
    if (taken == size) break;  // The line's end is still to come.
    if (line_.ends_with('\r')) line_.pop_back();
    TakeLine(line_);
    line_.clear();
  }
  return state_;
}

HttpResponseReader::State HttpResponseReader::Finish() {
  if (state_ == State::kIncomplete) {
    if (part_ == Part::kUntilEnd) {
      state_ = State::kComplete;
    } else {
      Fail("the connection ended early");
    }
  }
  return state_;
}

void HttpResponseReader::Fail(std::string error) {
  state_ = State::kFailed;
  error_ = std::move(error);
}

void HttpResponseReader::TakeLine(std::string_view line) {
  switch (part_) {
    case Part::kStatusLine:
      return TakeStatus(line);
    case Part::kFields:
      return line.empty() ? EndHead() : TakeField(line);
    case Part::kChunkSize:
      return TakeChunkSize(line);
    case Part::kChunkEnd:
      if (!line.empty()) return Fail("the response is malformed");
      part_ = Part::kChunkSize;
      return;
    default:  // The trailer, whose fields say nothing to us.
      if (line.empty()) state_ = State::kComplete;
  }
}

void HttpResponseReader::TakeStatus(std::string_view line) {
  constexpr std::string_view kVersion = "HTTP/1.";
  // HTTP/1.1 200[ reason]
  if (line.size() < 12 || !line.starts_with(kVersion) || !IsDigit(line[7]) ||
      line[8] != ' ' || !All(line.substr(9, 3), IsDigit) ||
      (line.size() > 12 && line[12] != ' ')) {
    return Fail("the response is malformed");
  }
  status_ = static_cast<unsigned>(*ParseNumber(line.substr(9, 3), 10));
  part_ = Part::kFields;
}

void HttpResponseReader::TakeField(std::string_view line) {
  const size_t colon = line.find(':');
  // A name with blanks, or none, is also what a folded line looks like.
  if (colon == line.npos || !All(line.substr(0, colon), IsInFieldName)) {
    return Fail("the response is malformed");
  }
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = Trim(line.substr(colon + 1));
  if (!std::all_of(value.begin(), value.end(), IsInFieldValue)) {
    return Fail("the response is malformed");
  }
  if (EqualIgnoringCase(name, "content-length")) {
    const std::optional<size_t> length = ParseNumber(value, 10);
    if (!length || (length_ && length_ != length)) {
      return Fail("the response is malformed");
    }
    length_ = length;
  } else if (EqualIgnoringCase(name, "transfer-encoding")) {
    if (chunked_ || !EqualIgnoringCase(value, "chunked")) {
      return Fail("the response has an unknown encoding");
    }
    chunked_ = true;
  }
}

void HttpResponseReader::EndHead() {
  if (status_ >= 100 && status_ < 200) {  // The real one is yet to come.
    part_ = Part::kStatusLine;
    length_.reset();
    chunked_ = false;
    return;
  }
  if (status_ != 200) return Fail("status " + std::to_string(status_));
  if (chunked_ && length_) return Fail("the response is malformed");
  if (chunked_) {
    part_ = Part::kChunkSize;
  } else if (!length_) {
    part_ = Part::kUntilEnd;
    left_ = std::numeric_limits<size_t>::max();
  } else if (*length_ > kMaxHttpResponseSize) {
    Fail("the response is too large");
  } else if (*length_ == 0) {
    state_ = State::kComplete;
  } else {
    part_ = Part::kBody;
    left_ = *length_;
  }
}

void HttpResponseReader::TakeChunkSize(std::string_view line) {
  const std::optional<size_t> size =
      ParseNumber(Trim(line.substr(0, line.find(';'))), 16);
  if (!size) return Fail("the response is malformed");
  left_ = *size;
  part_ = left_ == 0 ? Part::kTrailer : Part::kChunk;
}

}  // namespace zu::platform
