// Child processes that are there to be looked at.
#ifndef ZU_TESTS_PROCESS_PAUSED_CHILD_H_
#define ZU_TESTS_PROCESS_PAUSED_CHILD_H_

#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include "support/file_descriptor.h"

namespace zu::test {

// A child that has run `prepare` and then runs `rest` over and over, until it
// is killed.
class PausedChild {
 public:
  template <typename Prepare, typename Rest>
  PausedChild(Prepare prepare, Rest rest) {
    int ends[2];
    if (::pipe(ends) != 0) return;
    const FileDescriptor prepared(ends[0]);
    FileDescriptor sink(ends[1]);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      prepare();
      sink.reset();
      for (;;) rest();
    }
    sink.reset();
    char none;
    RetryOnInterrupt([&] { return ::read(prepared.get(), &none, 1); });
  }
  template <typename Prepare>
  explicit PausedChild(Prepare prepare) : PausedChild(prepare, ::pause) {}
  PausedChild() : PausedChild([] {}) {}
  PausedChild(const PausedChild&) = delete;
  PausedChild& operator=(const PausedChild&) = delete;
  ~PausedChild() { End(); }

  // Kills it, and returns what waitpid says: SIGKILL, unless it had ended or
  // been sent another deadly signal before.
  int End() {
    if (pid_ <= 0) return -1;
    ::kill(pid_, SIGKILL);
    int status = -1;
    RetryOnInterrupt([&] { return ::waitpid(pid_, &status, 0); });
    pid_ = -1;
    return status;
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

// The identifier of a process that has ended and was waited for.
inline pid_t EndedProcess() { return PausedChild().pid(); }

}  // namespace zu::test

#endif  // ZU_TESTS_PROCESS_PAUSED_CHILD_H_
