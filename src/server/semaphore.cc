#include "server/semaphore.h"

#include <fcntl.h>
#include <semaphore.h>
#include <cerrno>
#include <csignal>

#include "ZuHelper.h"
#include "build_values.h"

namespace zu::server {
namespace {

constexpr int kFatalSignals[] = {SIGABRT, SIGBUS,  SIGFPE, SIGILL,
                                 SIGQUIT, SIGTERM, SIGINT, SIGTSTP};

void CatchFatalSignals() {
  for (const int signal : kFatalSignals) {
    const auto before = std::signal(signal, &fatal_error_termination_handler);
    // Deliberately SIGINT and not the signal itself: one that the host ignored
    // is caught from now on, while an interrupt stays without effect.
    if (before == SIG_IGN) std::signal(SIGINT, SIG_IGN);
  }
}

}  // namespace

void LeaveSemaphore() {
  ::UnlinkSemaphore();
  for (const int signal : kFatalSignals) {
    struct sigaction now {};
    ::sigaction(signal, nullptr, &now);
    if (now.sa_handler == &fatal_error_termination_handler) {
      std::signal(signal, SIG_DFL);
    }
  }
}

}  // namespace zu::server

uint32_t OpenSemaphore(void) {
  // Its count is of no use: the name is the mark, and it stays.
  sem_t* const semaphore =
      ::sem_open(ZU_SEMAPHORE_NAME, O_CREAT | O_EXCL, 0644, 1);
  if (semaphore == SEM_FAILED) return static_cast<uint32_t>(errno);
  ::sem_close(semaphore);
  zu::server::CatchFatalSignals();
  return 0;
}

int32_t UnlinkSemaphore(void) { return ::sem_unlink(ZU_SEMAPHORE_NAME); }
