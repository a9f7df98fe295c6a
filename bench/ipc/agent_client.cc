// A client of the agent's server, over the client library. The server admits it
// only when this program is signed.

#include <cstdio>
#include <memory>

#include "aligned_buffer.h"
#include "peer.h"
#include "zu_client.hpp"

namespace zu::bench {
namespace {

constexpr int32_t kTimeoutMs = 30000;

}  // namespace

// The server has an address of its own.
Connection Connect(const std::string& /*address*/) {
  const auto client = std::make_shared<Client>();
  const ZuClientStatus connected = client->Connect(nullptr, kTimeoutMs);
  const std::shared_ptr<char> reply = MakeAlignedBuffer(kMaxBody);
  if (connected != ZU_CLIENT_OK || !reply) {
    std::fprintf(stderr, "connect: %s\n", ZuClientStatusText(connected));
    return nullptr;
  }
  return [client, reply](std::string_view request) -> std::string_view {
    size_t size = kMaxBody;
    const ZuClientStatus status =
        ZuClientRequestInto(client->get(), request.data(), request.size(),
                            kTimeoutMs, reply.get(), &size);
    if (status == ZU_CLIENT_OK) return {reply.get(), size};
    std::fprintf(stderr, "request: %s\n", ZuClientStatusText(status));
    return {};
  };
}

}  // namespace zu::bench
