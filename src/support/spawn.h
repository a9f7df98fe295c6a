// Starting programs as children that nobody waits for.
#ifndef ZU_SUPPORT_SPAWN_H_
#define ZU_SUPPORT_SPAWN_H_

#include <sys/types.h>
#include <optional>
#include <string>
#include <vector>

#include "support/child_reaper.h"
#include "support/scoped_handle.h"

namespace zu {

// A running child; let go of, it is reaped when it ends.
struct ChildTraits {
  using Value = pid_t;
  static constexpr Value kNone = 0;
  static void Close(Value child) noexcept { ReapWhenItEnds(child); }
};
using Child = ScopedHandle<ChildTraits>;

// What a child is to have otherwise than this process.
struct SpawnOptions {
  // Its standard output; not that of this process, which is the default.
  int output = -1;
  // Where it runs; empty: where this process does.
  std::string working_directory = {};
  // "NAME=value"; absent: this process's own.
  std::optional<std::vector<std::string>> environment = {};
  // It is to outlive this process: it gets a process group of its own, and of
  // the descriptors the three standard ones only.
  bool detached = false;
};

// Whether a program could be started from there: an absolute path of what this
// process may execute. A relative path would mean whatever the host's working
// directory holds.
[[nodiscard]] bool IsLaunchable(const std::string& path);

// Starts the program at an absolute path, without a shell and without the
// host's blocked signals and ignored SIGCHLD and SIGPIPE, which programs do not
// expect.
// `arguments` come behind the program's name. 0, with the child, or the error
// number. Thread-safe.
[[nodiscard]] int Spawn(const std::string& path,
                        const std::vector<std::string>& arguments,
                        const SpawnOptions& options, Child& child);

}  // namespace zu

#endif  // ZU_SUPPORT_SPAWN_H_
