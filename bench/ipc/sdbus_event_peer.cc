// sd-bus peer to peer as its own event loop serves it, which is the usual way.
// The loop looks at every connection in each of its rounds.

#include <algorithm>
#include <utility>
#include <vector>

#include "sdbus_echo.h"
#include "unix_socket.h"

namespace zu::bench {
namespace {

struct Server {
  sd_event* loop = nullptr;
  std::vector<Bus> clients;  // Closed ones are swept when a new one comes.
};

int Admit(sd_event_source* /*source*/, int listener, uint32_t /*events*/,
          void* userdata) {
  Server& server = *static_cast<Server*>(userdata);
  std::erase_if(server.clients, [](const Bus& client) {
    return sd_bus_is_open(client.get()) <= 0;
  });
  Bus bus = MakeServerSide(FileDescriptor(
      ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)));
  if (!bus) return 0;
  const int result = sd_bus_attach_event(bus.get(), server.loop, 0);
  if (result < 0) {
    Complain("client", result);
  } else {
    server.clients.push_back(std::move(bus));
  }
  return 0;
}

}  // namespace

bool Serve(const std::string& address, const ReportReady& report_ready) {
  const FileDescriptor listener = Listen(address);
  const EventLoop loop = MakeEventLoop();
  if (!listener.valid() || !loop) return false;
  Server server{loop.get(), {}};
  int result = sd_event_add_io(loop.get(), nullptr, listener.get(), EPOLLIN,
                               Admit, &server);
  if (result >= 0) {
    report_ready();
    result = sd_event_loop(loop.get());
  }
  return result >= 0 || Complain(address.c_str(), result);
}

Connection Connect(const std::string& address) {
  return ConnectDirectly(address);
}

}  // namespace zu::bench
