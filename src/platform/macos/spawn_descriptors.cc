#include "platform/spawn_descriptors.h"

#include <fcntl.h>
#include <unistd.h>
#include <initializer_list>

namespace zu::platform {

int KeepStandardDescriptorsOnly(posix_spawn_file_actions_t& actions,
                                posix_spawnattr_t& attributes) {
  short flags = 0;
  int error = ::posix_spawnattr_getflags(&attributes, &flags);
  if (error == 0) {
    error = ::posix_spawnattr_setflags(
        &attributes, static_cast<short>(flags | POSIX_SPAWN_CLOEXEC_DEFAULT));
  }
  // One that is not open is left out: to name it makes the whole spawn fail.
  for (const int each : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (error == 0 && ::fcntl(each, F_GETFD) >= 0) {
      error = ::posix_spawn_file_actions_addinherit_np(&actions, each);
    }
  }
  return error;
}

}  // namespace zu::platform
