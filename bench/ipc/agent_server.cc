// The agent's server: a host that uses the library as any host does. Its whole
// work counts: admission of each client, the hand-over to the worker thread,
// the JSON text, the callback.

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "ZuHelper.h"
#include "build_values.h"
#include "peer.h"

namespace zu::bench {
namespace {

// Leaves the request's text as the reply's.
uint32_t Echo(char* /*buffer*/, uint32_t /*capacity*/, uint32_t* /*length*/) {
  return 0;
}

}  // namespace

// The server has an address of its own.
bool Serve(const std::string& /*address*/, const ReportReady& report_ready) {
  ZuSetServerCallbackForCommand("ECHO", Echo);
  ZuStartServer();
  // A server that cannot listen tells the system log only.
  static constexpr char kSocket[] =
      ZU_SOCKET_DIRECTORY "/" ZU_AGENT_SERVICE_NAME;
  struct stat status;
  if (::stat(kSocket, &status) != 0) {
    std::perror(kSocket);
    std::fputs("scripts/bench makes the directories that it needs\n", stderr);
    return false;
  }
  report_ready();
  // Until the benchmark closes its end; the watchdog wants to hear from us in
  // the meantime.
  pollfd input = {STDIN_FILENO, POLLIN, 0};
  char ignored;
  do {
    ZuDeadLockWatch();
  } while (::poll(&input, 1, 10000) <= 0 ||
           ::read(STDIN_FILENO, &ignored, 1) > 0);
  ZuStopServer();
  return true;
}

}  // namespace zu::bench
