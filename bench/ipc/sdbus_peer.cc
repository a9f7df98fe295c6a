// sd-bus peer to peer: each client has its own connection to the server, and
// no daemon stands between them. The server waits with epoll and looks only at
// connections on which something has come, which is the fastest way.

#include <unistd.h>

#include <array>
#include <unordered_map>
#include <utility>

#include "sdbus_echo.h"
#include "unix_socket.h"

namespace zu::bench {
namespace {

// Carries out what has come; false when the client has gone.
bool Process(sd_bus& bus) {
  for (;;) {
    int result = 0;
    do {
      result = sd_bus_process(&bus, nullptr);
    } while (result > 0);
    if (result < 0 || sd_bus_is_open(&bus) <= 0) return false;
    if ((sd_bus_get_events(&bus) & EPOLLOUT) == 0) return true;
    // Waits for the client only in the middle of a reply, as the bare echo
    // does. May read as well, into its own buffer, of which epoll says nothing.
    if (sd_bus_flush(&bus) < 0) return false;
  }
}

}  // namespace

bool Serve(const std::string& address, const ReportReady& report_ready) {
  const FileDescriptor listener = Listen(address);
  const FileDescriptor epoll(::epoll_create1(EPOLL_CLOEXEC));
  if (!listener.valid() ||
      !Watch(epoll.get(), listener.get(), {.fd = listener.get()}) ||
      !Watch(epoll.get(), STDIN_FILENO, {.fd = STDIN_FILENO})) {
    return false;
  }
  report_ready();
  std::unordered_map<int, Bus> clients;
  std::array<epoll_event, 128> events;
  for (;;) {
    const int count = RetryOnInterrupt([&] {
      return ::epoll_wait(epoll.get(), events.data(), events.size(), -1);
    });
    for (int i = 0; i < count; ++i) {
      const int ready = events[static_cast<size_t>(i)].data.fd;
      if (ready == STDIN_FILENO) return true;
      if (ready != listener.get()) {
        if (!Process(*clients.at(ready))) clients.erase(ready);
        continue;
      }
      const int client =
          ::accept4(ready, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      Bus bus = MakeServerSide(FileDescriptor(client));
      // Starting it has read what the client had sent by then.
      if (!bus || !Process(*bus)) continue;
      if (Watch(epoll.get(), client, {.fd = client})) {
        clients.emplace(client, std::move(bus));
      }
    }
  }
}

Connection Connect(const std::string& address) {
  return ConnectDirectly(address);
}

}  // namespace zu::bench
