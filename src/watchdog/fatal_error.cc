// The handler of signals that end the host.

#include <cerrno>
#include <csignal>

#include "ZuHelper.h"
#include "platform/named_semaphore.h"

volatile int32_t fatal_error_in_progress = 0;

void fatal_error_termination_handler(int signal) {
  const int saved = errno;  // After SIGTSTP the host goes on.
  // A second signal is raised again before anything else; that is deliberate.
  // It stays pending as long as this handler runs.
  if (__atomic_exchange_n(&fatal_error_in_progress, 1, __ATOMIC_RELAXED) != 0) {
    std::raise(signal);
  }
  zu::platform::UnlinkSemaphoreInHandler();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
  errno = saved;
}
