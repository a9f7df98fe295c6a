// A client of an agent's server: sends the requests that agent_host.c answers,
// prints the replies, and waits for the broadcast that it asked for. Only the
// client library is needed. The server talks to it only when it is signed.
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "zu_client.hpp"

namespace {

constexpr int32_t kTimeoutMs = 10000;
constexpr int kPrinted = 60;  // Characters of a message that are shown.

[[noreturn]] void Give(const char* what, ZuClientStatus status) {
  std::fprintf(stderr, "client: %s: %s\n", what, ZuClientStatusText(status));
  std::exit(1);
}

void Print(const char* what, const zu::ClientText& message) {
  if (!message) Give(what, message.status());
  const std::string_view text = message.text();
  const bool cut = text.size() > kPrinted;
  std::printf("client: %s: %zu bytes: %.*s%s\n", what, text.size(),
              static_cast<int>(cut ? kPrinted : text.size()), text.data(),
              cut ? "..." : "");
  std::fflush(stdout);
}

}  // namespace

int main() {
  zu::Client client;
  const ZuClientStatus status = client.Connect(nullptr, kTimeoutMs);
  if (status != ZU_CLIENT_OK) Give("connect", status);

  Print("ECHO",
        client.Request(R"({"CMD_":"ECHO","TEXT":"hello"})", kTimeoutMs));
  Print("GROW", client.Request(R"({"CMD_":"GROW"})", kTimeoutMs));

  // A broadcast that arrives together with the reply waits in the connection.
  Print("BROADCAST",
        client.Request(R"({"CMD_":"BROADCAST","TEXT":"to all"})", kTimeoutMs));
  Print("broadcast received", client.Receive(kTimeoutMs));
  return 0;
}
