#include "program.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "platform/pipe.h"

namespace zu::bench {
namespace {

// Far more than the slowest command needs.
constexpr int kAnswerTimeoutMs = 60'000;
constexpr int kExitTimeoutMs = 5'000;

// Waits for one of `events` (POLLHUP always counts).
bool WaitFor(int descriptor, short events, int timeout_ms) {
  pollfd entry{descriptor, events, 0};
  return RetryOnInterrupt([&] { return ::poll(&entry, 1, timeout_ms); }) == 1;
}

}  // namespace

Program::Program(const std::string& path, const std::string& address) {
  platform::Pipe input = platform::MakePipe();
  platform::Pipe output = platform::MakePipe();
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);
    ::signal(SIGPIPE, SIG_DFL);  // The benchmark's is ignored.
    ::dup2(input.read_end.get(), STDIN_FILENO);
    ::dup2(output.write_end.get(), STDOUT_FILENO);
    ::execl(path.c_str(), path.c_str(), address.c_str(), nullptr);
    std::perror(path.c_str());
    ::_exit(127);
  }
  if (pid_ < 0) std::perror("fork");
  input_ = std::move(input.write_end);
  output_ = std::move(output.read_end);
}

Program::~Program() {
  if (pid_ <= 0) return;
  input_.reset();
  // Its end of the pipe is closed when it ends, whatever it wrote before.
  if (!WaitFor(output_.get(), 0, kExitTimeoutMs)) ::kill(pid_, SIGKILL);
  RetryOnInterrupt([this] { return ::waitpid(pid_, nullptr, 0); });
}

bool Program::Read(void* destination, size_t size) {
  return WaitFor(output_.get(), POLLIN, kAnswerTimeoutMs) &&
         ::read(output_.get(), destination, size) == static_cast<ssize_t>(size);
}

bool Program::WaitUntilReady() {
  char ready;
  return Read(&ready, 1);
}

std::optional<Outcome> Program::Run(const Command& command) {
  Outcome outcome;
  if (::write(input_.get(), &command, sizeof command) != sizeof command ||
      !Read(&outcome, sizeof outcome) || outcome.exchanges == 0) {
    return std::nullopt;
  }
  return outcome;
}

}  // namespace zu::bench
