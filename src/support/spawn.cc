#include "support/spawn.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>

#include "platform/spawn_descriptors.h"

extern char** environ;

namespace zu {
namespace {

class SpawnSettings {
 public:
  explicit SpawnSettings(const SpawnOptions& options) {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawnattr_init(&attributes_);
    error_ = Apply(options);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
  ~SpawnSettings() {
    ::posix_spawnattr_destroy(&attributes_);
    ::posix_spawn_file_actions_destroy(&actions_);
  }

  // 0 and the child, or the error number.
  int Spawn(const std::string& path, char* const argv[], char* const envp[],
            Child& child) {
    if (error_ != 0) return error_;
    pid_t pid = 0;
    const int error =
        ::posix_spawn(&pid, path.c_str(), &actions_, &attributes_, argv, envp);
    if (error == 0) child.reset(pid);
    return error;
  }

 private:
  int Apply(const SpawnOptions& options) {
    sigset_t signals;
    sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes_, &signals);
    sigaddset(&signals, SIGCHLD);
    sigaddset(&signals, SIGPIPE);
    ::posix_spawnattr_setsigdefault(&attributes_, &signals);
    int flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if (options.detached) flags |= POSIX_SPAWN_SETPGROUP;
    ::posix_spawnattr_setflags(&attributes_, static_cast<short>(flags));

    int error = 0;
    if (options.output >= 0) {
      error = ::posix_spawn_file_actions_adddup2(&actions_, options.output,
                                                 STDOUT_FILENO);
    }
    if (error == 0 && !options.working_directory.empty()) {
      error = ::posix_spawn_file_actions_addchdir_np(
          &actions_, options.working_directory.c_str());
    }
    if (error == 0 && options.detached) {
      error = platform::KeepStandardDescriptorsOnly(actions_, attributes_);
    }
    return error;
  }

  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  int error_;
};

// As posix_spawn takes them; the texts must stay.
void AppendPointers(const std::vector<std::string>& texts,
                    std::vector<char*>& pointers) {
  for (const std::string& text : texts) {
    pointers.push_back(const_cast<char*>(text.c_str()));
  }
  pointers.push_back(nullptr);
}

}  // namespace

bool IsLaunchable(const std::string& path) {
  struct stat status;
  return path.starts_with('/') && ::stat(path.c_str(), &status) == 0 &&
         !S_ISDIR(status.st_mode) &&
         ::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

int Spawn(const std::string& path, const std::vector<std::string>& arguments,
          const SpawnOptions& options, Child& child) {
  if (!path.starts_with('/')) return ENOENT;
  std::vector<char*> argv{const_cast<char*>(path.c_str())};
  AppendPointers(arguments, argv);
  std::vector<char*> envp;
  if (options.environment) AppendPointers(*options.environment, envp);
  return SpawnSettings(options).Spawn(
      path, argv.data(), options.environment ? envp.data() : environ, child);
}

}  // namespace zu
