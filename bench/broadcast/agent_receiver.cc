// A client of the agent's server. It is admitted only when this program is
// signed.

#include <cstdio>
#include <memory>

#include "receiver.h"
#include "zu_client.hpp"

namespace zu::bench {
namespace {

constexpr int32_t kTimeoutMs = 30000;

}  // namespace

// The server has an address of its own.
Receiver ConnectReceiver(const std::string& /*address*/) {
  const auto client = std::make_shared<Client>();
  ZuClientStatus status = client->Connect(nullptr, kTimeoutMs);
  // Whoever has an answer is in the server's list.
  if (status == ZU_CLIENT_OK) {
    status = client->Request("{}", kTimeoutMs).status();
  }
  if (status != ZU_CLIENT_OK) {
    std::fprintf(stderr, "connect: %s\n", ZuClientStatusText(status));
    return nullptr;
  }
  return [client](size_t size) {
    return client->Receive(kTimeoutMs).text().size() == size;
  };
}

}  // namespace zu::bench
