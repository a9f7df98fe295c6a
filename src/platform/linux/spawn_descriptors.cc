#include "platform/spawn_descriptors.h"

#include <unistd.h>

namespace zu::platform {

int KeepStandardDescriptorsOnly(posix_spawn_file_actions_t& actions,
                                posix_spawnattr_t& /*attributes*/) {
  return ::posix_spawn_file_actions_addclosefrom_np(&actions,
                                                    STDERR_FILENO + 1);
}

}  // namespace zu::platform
