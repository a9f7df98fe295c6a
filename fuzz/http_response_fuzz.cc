// What comes from the network, and the addresses that lead there: read whole
// and cut into pieces.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/linux/signing/trust/http_message.h"

namespace zu::platform {
namespace {

std::string Read(std::span<const std::byte> bytes, size_t piece) {
  HttpResponseReader reader;
  while (!bytes.empty()) {
    const auto part = bytes.first(std::min(piece, bytes.size()));
    reader.Consume(part);
    bytes = bytes.subspan(part.size());
  }
  if (reader.Finish() != HttpResponseReader::State::kComplete) {
    return "!" + reader.error();
  }
  const std::vector<std::byte> body = reader.TakeBody();
  return {reinterpret_cast<const char*>(body.data()), body.size()};
}

void CheckUrl(std::string_view text) {
  const auto url = ParseHttpUrl(text);
  if (!url) return;
  // Nothing in it can end a line of a request or a word in it.
  for (const char c : url->host + url->port + url->authority + url->target) {
    if (c <= ' ' || c > '~') std::abort();
  }
  if (url->host.empty() || !url->target.starts_with('/')) std::abort();
}

}  // namespace
}  // namespace zu::platform

// The first byte says how the response is cut, which must change nothing.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const auto bytes = std::as_bytes(std::span(data + 1, size - 1));
  if (zu::platform::Read(bytes, data[0] + size_t{1}) !=
      zu::platform::Read(bytes, size)) {
    std::abort();
  }
  zu::platform::CheckUrl(
      {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  return 0;
}
