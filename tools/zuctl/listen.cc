// zuctl listen: prints broadcasts as they come.
#include <algorithm>
#include <chrono>

#include "zuctl.h"

namespace zu::ctl {

Exit RunListen(const Options& options) {
  using Clock = std::chrono::steady_clock;
  using Milliseconds = std::chrono::milliseconds;
  const auto end = Clock::now() + Milliseconds(options.timeout_ms);
  Client client;
  const Exit connected = Connect(options, client);
  if (connected != Exit::kDone) return connected;
  for (uint64_t i = 0; options.count == 0 || i < options.count; ++i) {
    int32_t left_ms = -1;
    if (options.has_timeout) {
      const auto left = std::chrono::ceil<Milliseconds>(end - Clock::now());
      left_ms = std::max(static_cast<int32_t>(left.count()), 0);
    }
    const ClientText broadcast = client.Receive(left_ms);
    if (!broadcast) return Fail("listen", broadcast.status());
    const Exit printed = PrintLine(broadcast.text());
    if (printed != Exit::kDone) return printed;
  }
  return Exit::kDone;
}

}  // namespace zu::ctl
