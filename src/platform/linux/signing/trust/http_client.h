// One HTTP exchange within a deadline.
//
// libcrypto's own client retries for seconds where a port refuses, and can
// wait for ever.
#ifndef ZU_PLATFORM_LINUX_SIGNING_TRUST_HTTP_CLIENT_H_
#define ZU_PLATFORM_LINUX_SIGNING_TRUST_HTTP_CLIENT_H_

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/signing/trust/http_message.h"

namespace zu::platform {

using Deadline = std::chrono::steady_clock::time_point;

// The first of `parts` equal parts of the time from now to `deadline`, so that
// one who does not answer leaves time to ask the others.
inline Deadline PartOf(Deadline deadline, size_t parts) {
  const Deadline now = std::chrono::steady_clock::now();
  return now + (deadline - now) / static_cast<std::ptrdiff_t>(parts);
}

struct HttpRequest {
  std::string_view url;  // http:// only: what is fetched is signed itself.
  // Empty: a GET, else a POST of `body`.
  std::string_view content_type = {};
  std::span<const std::byte> body = {};
};

// The body of a response with status 200. Absent: the address is not
// supported, nobody answered in time (name look-up included), another status,
// a malformed response or one above kMaxHttpResponseSize. `error` then says
// which, for people. Follows no redirection, uses no proxy, sends no signal.
// Blocks until `deadline` at most.
std::optional<std::vector<std::byte>> ExchangeHttp(const HttpRequest& request,
                                                   Deadline deadline,
                                                   std::string& error);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_TRUST_HTTP_CLIENT_H_
