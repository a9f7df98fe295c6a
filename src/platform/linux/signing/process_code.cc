#include "platform/linux/signing/process_code.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <charconv>
#include <string>
#include <string_view>
#include <utility>

namespace zu::platform {
namespace {

std::string ProcPath(int32_t pid, const char* name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

// When the process was started, from the 22nd field of its stat file.
std::optional<uint64_t> ReadStartTime(int32_t pid) {
  const FileDescriptor file(RetryOnInterrupt([&] {
    return ::open(ProcPath(pid, "stat").c_str(), O_RDONLY | O_CLOEXEC);
  }));
  char buffer[1024];  // Some 50 numbers and a name of at most 64 bytes.
  const ssize_t size = RetryOnInterrupt(
      [&] { return ::read(file.get(), buffer, sizeof(buffer)); });
  if (size <= 0) return std::nullopt;
  std::string_view text(buffer, static_cast<size_t>(size));
  // The name is the second field and may hold anything, so count from its end.
  const size_t name_end = text.rfind(')');
  if (name_end == text.npos) return std::nullopt;
  text.remove_prefix(name_end);
  constexpr int kFieldsBetween = 20;
  for (int i = 0; i < kFieldsBetween; ++i) {
    const size_t space = text.find(' ');
    if (space == text.npos) return std::nullopt;
    text.remove_prefix(space + 1);
  }
  uint64_t value = 0;
  if (std::from_chars(text.data(), text.data() + text.size(), value).ec !=
      std::errc()) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

std::optional<ProcessCode> ProcessCode::Open(const ProcessReference& process) {
  if (process.pid <= 0) return std::nullopt;
  ProcessCode code;
  code.pid_ = process.pid;
  if (process.descriptor >= 0) {
    code.descriptor_.reset(::fcntl(process.descriptor, F_DUPFD_CLOEXEC, 0));
    if (!code.descriptor_.valid()) return std::nullopt;
  } else {
    code.descriptor_.reset(
        static_cast<int>(::syscall(SYS_pidfd_open, process.pid, 0)));
    if (!code.descriptor_.valid()) {
      // Kernels before 5.3 have no such call; some sandboxes forbid it.
      if (errno != ENOSYS && errno != EPERM) return std::nullopt;
      const std::optional<uint64_t> start_time = ReadStartTime(process.pid);
      if (!start_time) return std::nullopt;
      code.start_time_ = *start_time;
    }
  }

  code.executable_.reset(RetryOnInterrupt([&] {
    return ::open(ProcPath(process.pid, "exe").c_str(),
                  O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  }));
  if (!code.executable_.valid() && (errno == ENOENT || errno == ESRCH)) {
    return std::nullopt;
  }
  // Alive now, so the identifier was not given to another process before the
  // file was opened.
  if (!code.IsAlive()) return std::nullopt;
  return code;
}

bool ProcessCode::IsAlive() const {
  if (!descriptor_.valid()) return ReadStartTime(pid_) == start_time_;
  pollfd ended{descriptor_.get(), POLLIN, 0};
  return RetryOnInterrupt([&] { return ::poll(&ended, 1, 0); }) == 0;
}

ProcessCode::State ProcessCode::CurrentState() const {
  struct stat opened {};
  struct stat current {};
  const bool same = ::fstat(executable_.get(), &opened) == 0 &&
                    ::stat(ProcPath(pid_, "exe").c_str(), &current) == 0 &&
                    opened.st_dev == current.st_dev &&
                    opened.st_ino == current.st_ino;
  if (!IsAlive()) return State::kEnded;
  return same ? State::kRunning : State::kReplaced;
}

}  // namespace zu::platform
