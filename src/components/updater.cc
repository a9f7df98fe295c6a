// The updater, which outlives the host that starts it.

#include <fcntl.h>
#include <unistd.h>
#include <cstdlib>
#include <string>

#include "ZuHelper.h"
#include "support/guarded.h"
#include "support/path.h"
#include "support/spawn.h"

namespace {

bool CanBeEntered(const std::string& directory) {
  return ::faccessat(AT_FDCWD, (directory + "/.").c_str(), X_OK, AT_EACCESS) ==
         0;
}

}  // namespace

uint32_t StartZuUpdater(const char* launch_path, const char* working_directory,
                        const char* first_argument,
                        const char* second_argument) {
  for (const char* text :
       {launch_path, working_directory, first_argument, second_argument}) {
    if (text == nullptr || *text == '\0') return 0;
  }
  return zu::Guarded(__func__, 0u, [=] {
    // Nothing is started, not even for a moment, that cannot run.
    const char* const registry = std::getenv("MONO_REGISTRY_PATH");
    if (registry == nullptr || !zu::IsLaunchable(launch_path) ||
        !CanBeEntered(working_directory)) {
      return 0u;
    }
    const zu::SpawnOptions options{
        .working_directory = working_directory,
        .environment = {{
            "DYLD_LIBRARY_PATH=" + zu::WithoutLastComponent(launch_path),
            std::string("MONO_REGISTRY_PATH=") + registry,
        }},
        .detached = true};
    zu::Child updater;
    const int error = zu::Spawn(launch_path, {first_argument, second_argument},
                                options, updater);
    return error == 0 ? 1u : 0u;
  });
}
