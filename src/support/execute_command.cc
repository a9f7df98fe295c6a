#include "support/execute_command.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <memory>

#include "platform/pipe.h"
#include "support/child_reaper.h"
#include "support/file_descriptor.h"
#include "support/log.h"
#include "support/scoped_handle.h"
#include "support/utf8.h"

extern char** environ;

namespace zu {
namespace {

constexpr char kMethod[] = "+[ExecuteCommand Run:argument:]";

// A child that is left to itself; its end is somebody else's care.
struct ChildTraits {
  using Value = pid_t;
  static constexpr Value kNone = 0;
  static void Close(Value child) noexcept { ReapWhenItEnds(child); }
};
using Child = ScopedHandle<ChildTraits>;

// The names and reasons are those of the platform's task class, whatever
// started the tool: log readers look for them.
void LogException(const std::string& launch_path, const char* name,
                  const std::string& reason) {
  LogError("ZuHelperOSX.%s(): Exception caught trying to execute '%s', (%s:%s)",
           kMethod, launch_path.c_str(), name, reason.c_str());
}

// A relative path is never started: it would mean whatever the host's working
// directory holds.
bool IsLaunchable(const std::string& path) {
  struct stat status;
  return path.starts_with('/') && ::stat(path.c_str(), &status) == 0 &&
         !S_ISDIR(status.st_mode) &&
         ::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

// What the child does differently from its parent: standard output goes to the
// pipe, and the host's blocked signals and ignored SIGPIPE, which tools do not
// expect, are not passed on.
class SpawnSettings {
 public:
  explicit SpawnSettings(int output) {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawnattr_init(&attributes_);
    error_ =
        ::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
    sigset_t signals;
    sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes_, &signals);
    sigaddset(&signals, SIGPIPE);
    ::posix_spawnattr_setsigdefault(&attributes_, &signals);
    ::posix_spawnattr_setflags(&attributes_,
                               POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
  ~SpawnSettings() {
    ::posix_spawnattr_destroy(&attributes_);
    ::posix_spawn_file_actions_destroy(&actions_);
  }

  // 0 and the child, or the error number.
  int Spawn(const std::string& path, char* const argv[], Child& child) {
    if (error_ != 0) return error_;
    pid_t pid = 0;
    const int error = ::posix_spawn(&pid, path.c_str(), &actions_, &attributes_,
                                    argv, environ);
    if (error == 0) child.reset(pid);
    return error;
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  int error_ = 0;
};

int SpawnTool(const std::string& path,
              const std::vector<std::string>& arguments,
              FileDescriptor write_end, Child& child) {
  if (!path.starts_with('/')) return ENOENT;
  // Where the host has closed its own output, the pipe can sit there already;
  // duplicating it onto itself would leave it close-on-exec.
  if (write_end.get() == STDOUT_FILENO) {
    write_end.reset(::fcntl(write_end.get(), F_DUPFD_CLOEXEC, 3));
    if (!write_end.valid()) return errno;
  }
  std::vector<char*> argv{const_cast<char*>(path.c_str())};
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  return SpawnSettings(write_end.get()).Spawn(path, argv.data(), child);
}

// Appends what comes until nobody holds the other end. False, with errno set,
// when reading fails.
bool ReadToEnd(const FileDescriptor& source, std::string& text) {
  // One large buffer that nothing clears beforehand: resizing the string for
  // each read costs more than the copy.
  constexpr size_t kBlock = 256 * 1024;
  const auto block = std::make_unique_for_overwrite<char[]>(kBlock);
  ssize_t count;
  while ((count = RetryOnInterrupt(
              [&] { return ::read(source.get(), block.get(), kBlock); })) > 0) {
    text.append(block.get(), static_cast<size_t>(count));
  }
  return count == 0;
}

}  // namespace

std::optional<std::string> ExecuteCommand::Run(
    const std::string& launch_path, const std::vector<std::string>& arguments) {
  platform::Pipe pipe = platform::MakePipe();
  // Descriptor 0, which a host without standard input gets, counts as bad too:
  // that is the rule of old, and hosts see its log line.
  if (pipe.read_end.get() <= 0) {
    LogError("ZuHelperOSX.%s(): Bad file handle from pipe", kMethod);
    return std::nullopt;
  }
  Child child;
  const int error =
      SpawnTool(launch_path, arguments, std::move(pipe.write_end), child);
  if (error != 0) {
    LogException(launch_path, "NSInvalidArgumentException",
                 IsLaunchable(launch_path)
                     ? "Couldn't posix_spawn: error " + std::to_string(error)
                     : "launch path not accessible");
    return std::nullopt;
  }
  std::string output;
  if (!ReadToEnd(pipe.read_end, output)) {
    LogException(launch_path, "NSFileHandleOperationException",
                 "read: error " + std::to_string(errno));
    return std::nullopt;
  }
  if (!IsValidUtf8(output)) return std::nullopt;
  return output;
}

}  // namespace zu
