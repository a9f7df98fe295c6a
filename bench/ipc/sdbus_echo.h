// The echo method that the D-Bus peers offer and call: an array of bytes in,
// the same out.
#ifndef ZU_BENCH_IPC_SDBUS_ECHO_H_
#define ZU_BENCH_IPC_SDBUS_ECHO_H_

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>

#include "peer.h"
#include "support/file_descriptor.h"

namespace zu::bench {

struct BusDeleter {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;

// A new bus that is not set up; null when memory is short.
Bus MakeBus();

// The event loop of the library itself; null on failure. It ends with standard
// input.
struct EventLoopDeleter {
  void operator()(sd_event* loop) const { sd_event_unref(loop); }
};
using EventLoop = std::unique_ptr<sd_event, EventLoopDeleter>;
EventLoop MakeEventLoop();

// Offers the method on `bus`. A negative errno on failure.
int OfferEcho(sd_bus& bus);

// Takes over an accepted socket and offers the method on it; null, with a
// message on standard error, on failure. Starting the bus may have read the
// client's first bytes.
Bus MakeServerSide(FileDescriptor client);

// Calls the method over a started bus. `destination` is the server's name, null
// when the server is the other end.
Connection CallEcho(Bus bus, const char* destination);

// Connects to a server without a daemon.
Connection ConnectDirectly(const std::string& address);

// Tells what went wrong, as sd-bus numbers it; always false.
bool Complain(const char* what, int error);

}  // namespace zu::bench

#endif  // ZU_BENCH_IPC_SDBUS_ECHO_H_
