#include "sdbus_echo.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace zu::bench {
namespace {

constexpr char kPath[] = "/bench";
constexpr char kInterface[] = "zuhelper.Bench";
constexpr char kMember[] = "Echo";

struct MessageDeleter {
  void operator()(sd_bus_message* message) const {
    sd_bus_message_unref(message);
  }
};
using Message = std::unique_ptr<sd_bus_message, MessageDeleter>;

int AnswerEcho(sd_bus_message* call, void* /*userdata*/,
               sd_bus_error* /*error*/) {
  const void* body = nullptr;
  size_t size = 0;
  int result = sd_bus_message_read_array(call, 'y', &body, &size);
  if (result < 0) return result;
  sd_bus_message* made = nullptr;
  result = sd_bus_message_new_method_return(call, &made);
  const Message reply(made);
  if (result < 0) return result;
  result = sd_bus_message_append_array(reply.get(), 'y', body, size);
  if (result < 0) return result;
  return sd_bus_send(nullptr, reply.get(), nullptr);
}

// The macros of the header initialise unions and leave fields out.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
constexpr sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD(kMember, "ay", "ay", AnswerEcho, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};
#pragma GCC diagnostic pop

int EndLoop(sd_event_source* source, int /*descriptor*/, uint32_t /*events*/,
            void* /*userdata*/) {
  return sd_event_exit(sd_event_source_get_event(source), 0);
}

// A client, with the reply that its caller may still read.
struct Caller {
  Bus bus;
  const char* destination;
  Message reply;
};

}  // namespace

bool Complain(const char* what, int error) {
  std::fprintf(stderr, "%s: %s\n", what, std::strerror(-error));
  return false;
}

Bus MakeBus() {
  sd_bus* bus = nullptr;
  sd_bus_new(&bus);
  return Bus(bus);
}

EventLoop MakeEventLoop() {
  sd_event* made = nullptr;
  if (sd_event_new(&made) < 0) return nullptr;
  EventLoop loop(made);
  if (sd_event_add_io(made, nullptr, STDIN_FILENO, EPOLLIN, EndLoop, nullptr) <
      0) {
    return nullptr;
  }
  return loop;
}

int OfferEcho(sd_bus& bus) {
  return sd_bus_add_object_vtable(&bus, nullptr, kPath, kInterface, kMethods,
                                  nullptr);
}

Bus MakeServerSide(FileDescriptor client) {
  Bus bus = MakeBus();
  sd_id128_t identifier;
  int result = sd_id128_randomize(&identifier);
  if (result >= 0) result = bus ? 0 : -ENOMEM;
  if (result >= 0) {
    result = sd_bus_set_fd(bus.get(), client.get(), client.get());
  }
  if (result >= 0) static_cast<void>(client.release());
  if (result >= 0) result = sd_bus_set_server(bus.get(), 1, identifier);
  if (result >= 0) result = sd_bus_set_trusted(bus.get(), 1);
  if (result >= 0) result = OfferEcho(*bus);
  if (result >= 0) result = sd_bus_start(bus.get());
  if (result >= 0) return bus;
  Complain("client", result);
  return nullptr;
}

Connection CallEcho(Bus bus, const char* destination) {
  const auto caller =
      std::make_shared<Caller>(Caller{std::move(bus), destination, nullptr});
  return [caller](std::string_view request) -> std::string_view {
    caller->reply.reset();
    sd_bus_message* made = nullptr;
    int result = sd_bus_message_new_method_call(caller->bus.get(), &made,
                                                caller->destination, kPath,
                                                kInterface, kMember);
    const Message call(made);
    if (result >= 0) {
      result = sd_bus_message_append_array(call.get(), 'y', request.data(),
                                           request.size());
    }
    if (result >= 0) {
      made = nullptr;
      result = sd_bus_call(caller->bus.get(), call.get(), 0, nullptr, &made);
      caller->reply.reset(made);
    }
    const void* body = nullptr;
    size_t size = 0;
    if (result >= 0) {
      result = sd_bus_message_read_array(made, 'y', &body, &size);
    }
    if (result < 0) {
      Complain("call", result);
      return {};
    }
    return {static_cast<const char*>(body), size};
  };
}

Connection ConnectDirectly(const std::string& address) {
  Bus bus = MakeBus();
  int result = -ENOMEM;
  if (bus) {
    result = sd_bus_set_address(bus.get(), ("unix:path=" + address).c_str());
  }
  if (result >= 0) result = sd_bus_set_trusted(bus.get(), 1);
  if (result >= 0) result = sd_bus_start(bus.get());
  if (result < 0) {
    Complain(address.c_str(), result);
    return nullptr;
  }
  return CallEcho(std::move(bus), nullptr);
}

}  // namespace zu::bench
