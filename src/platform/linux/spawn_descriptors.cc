#include "platform/spawn_descriptors.h"

#include <fcntl.h>
#include <unistd.h>
#include <initializer_list>

namespace zu::platform {

int KeepStandardDescriptorsOnly(posix_spawn_file_actions_t& actions,
                                posix_spawnattr_t& /*attributes*/) {
  // Onto itself: so the child has it even where the host's own is to be closed.
  for (const int each : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(each, F_GETFD) < 0) continue;
    const int error = ::posix_spawn_file_actions_adddup2(&actions, each, each);
    if (error != 0) return error;
  }
  return ::posix_spawn_file_actions_addclosefrom_np(&actions,
                                                    STDERR_FILENO + 1);
}

}  // namespace zu::platform
