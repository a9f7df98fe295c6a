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

namespace zu::platform {

using Deadline = std::chrono::steady_clock::time_point;

struct HttpRequest {
  std::string_view url;  // http:// only: what is fetched is signed itself.
  // Empty: a GET, else a POST of `body`.
  std::string_view content_type = {};
  std::span<const std::byte> body = {};
};

inline constexpr size_t kMaxHttpResponseSize = 8 << 20;

// The body of a response with status 200. Absent: the address is not
// supported, nobody answered in time (name look-up included), another status,
// a malformed or larger response. `error` then says which, for people.
// Follows no redirection, uses no proxy, sends no signal. Blocks until
// `deadline` at most.
std::optional<std::vector<std::byte>> ExchangeHttp(const HttpRequest& request,
                                                   Deadline deadline,
                                                   std::string& error);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_TRUST_HTTP_CLIENT_H_
