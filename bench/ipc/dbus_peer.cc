// The D-Bus daemon: a private one, between a server and clients that use
// sd-bus. Server, clients and daemon are processes of their own.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <utility>

#include "platform/pipe.h"
#include "sdbus_echo.h"
#include "support/file_descriptor.h"

namespace zu::bench {
namespace {

constexpr char kName[] = "zuhelper.Bench";

// The limits of the system's own daemon stop short of the largest body.
constexpr char kConfiguration[] =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=%s</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
    <allow own="*"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">134217728</limit>
  <limit name="max_connections_per_user">1000</limit>
  <limit name="max_completed_connections">1000</limit>
</busconfig>
)";

// The daemon, ended and reaped with this object; the kernel ends it if this
// process dies first.
class Daemon {
 public:
  // Returns when the daemon listens or has failed, which it tells on standard
  // error.
  explicit Daemon(const std::string& configuration) {
    platform::Pipe pipe = platform::MakePipe();
    const std::string option = "--config-file=" + configuration;
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent) ::_exit(127);
      ::dup2(pipe.write_end.get(), STDOUT_FILENO);
      ::execlp("dbus-daemon", "dbus-daemon", option.c_str(), "--nofork",
               "--nopidfile", "--syslog-only", "--print-address", nullptr);
      std::perror("dbus-daemon");
      ::_exit(127);
    }
    pipe.write_end.reset();
    char ignored[256];
    RetryOnInterrupt(
        [&] { return ::read(pipe.read_end.get(), ignored, sizeof ignored); });
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    RetryOnInterrupt([this] { return ::waitpid(pid_, nullptr, 0); });
  }

 private:
  pid_t pid_ = -1;
};

Bus JoinBus(const std::string& address, int& result) {
  sd_bus* made = nullptr;
  result = sd_bus_new(&made);
  Bus bus(made);
  if (result >= 0) {
    result = sd_bus_set_address(made, ("unix:path=" + address).c_str());
  }
  if (result >= 0) result = sd_bus_set_bus_client(made, 1);
  if (result >= 0) result = sd_bus_start(made);
  return bus;
}

}  // namespace

bool Serve(const std::string& address, const ReportReady& report_ready) {
  const std::string configuration = address + ".conf";
  std::ofstream out(configuration);
  char text[sizeof kConfiguration + 256];
  const int size =
      std::snprintf(text, sizeof text, kConfiguration, address.c_str());
  if (size < 0 || static_cast<size_t>(size) >= sizeof text) return false;
  out << text;
  out.close();
  if (!out) {
    std::perror(configuration.c_str());
    return false;
  }
  const Daemon daemon(configuration);
  const EventLoop loop = MakeEventLoop();
  if (!loop) return false;
  int result = 0;
  const Bus bus = JoinBus(address, result);
  if (result >= 0) result = OfferEcho(*bus);
  if (result >= 0) {
    result = sd_bus_attach_event(bus.get(), loop.get(), 0);
  }
  if (result >= 0) result = sd_bus_request_name(bus.get(), kName, 0);
  if (result >= 0) {
    report_ready();
    result = sd_event_loop(loop.get());
  }
  return result >= 0 || Complain(address.c_str(), result);
}

Connection Connect(const std::string& address) {
  int result = 0;
  Bus bus = JoinBus(address, result);
  if (result < 0) {
    Complain(address.c_str(), result);
    return nullptr;
  }
  return CallEcho(std::move(bus), kName);
}

}  // namespace zu::bench
