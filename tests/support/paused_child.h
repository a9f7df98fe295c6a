// Child processes that are there to be looked at.
#ifndef ZU_TESTS_SUPPORT_PAUSED_CHILD_H_
#define ZU_TESTS_SUPPORT_PAUSED_CHILD_H_

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

namespace zu::test {

// A child that has run `prepare`, which may be as far as starting a program,
// and then runs `rest` over and over, until it is killed.
class PausedChild {
 public:
  template <typename Prepare = void (*)(), typename Rest = int (*)()>
  explicit PausedChild(
      Prepare prepare = [] {}, Rest rest = &::pause) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      prepare();
      ::close(ends[1]);
      for (;;) rest();
    }
    ::close(ends[1]);
    char none;
    [[maybe_unused]] const ssize_t end = ::read(ends[0], &none, 1);
    ::close(ends[0]);
  }
  PausedChild(const PausedChild&) = delete;
  PausedChild& operator=(const PausedChild&) = delete;
  ~PausedChild() { End(); }

  // Kills it, and returns what waitpid says: SIGKILL, unless it had ended or
  // been sent another deadly signal before.
  int End() {
    if (pid_ <= 0) return -1;
    ::kill(pid_, SIGKILL);
    int status = -1;
    ::waitpid(pid_, &status, 0);
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

#endif  // ZU_TESTS_SUPPORT_PAUSED_CHILD_H_
