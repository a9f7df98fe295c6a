// Which descriptors a new process gets.
#ifndef ZU_PLATFORM_SPAWN_DESCRIPTORS_H_
#define ZU_PLATFORM_SPAWN_DESCRIPTORS_H_

#include <spawn.h>

namespace zu::platform {

// Adds to what posix_spawn is told, as the last of the file actions and after
// the attributes' flags are set: the child gets standard input, output and
// error, as far as they are open, and no other descriptor, close-on-exec or
// not. 0 or an error number.
[[nodiscard]] int KeepStandardDescriptorsOnly(
    posix_spawn_file_actions_t& actions, posix_spawnattr_t& attributes);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_SPAWN_DESCRIPTORS_H_
