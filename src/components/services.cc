// Launch daemons and kernel extensions, through the system's tools.

#include <fcntl.h>
#include <string>

#include "ZuHelper.h"
#include "support/execute_command.h"
#include "support/file_descriptor.h"
#include "support/guarded.h"

namespace {

constexpr char kDaemons[] = "/Library/LaunchDaemons/";
constexpr char kExtensions[] = "/Library/Extensions/";

// Whatever it is: a FIFO must not keep us waiting for a writer.
bool CanBeRead(const std::string& path) {
  return zu::FileDescriptor(
             ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC))
      .valid();
}

}  // namespace

uint32_t StartService(const char* plist_name) {
  if (plist_name == nullptr) return 0;
  return zu::Guarded(__func__, 0u, [=] {
    return zu::ExecuteCommand::RunsSilently(
        "/bin/launchctl", {"load", std::string(kDaemons) + plist_name});
  });
}

uint32_t StopService(const char* plist_name) {
  if (plist_name == nullptr) return 0;
  return zu::Guarded(__func__, 0u, [=] {
    const std::string path = std::string(kDaemons) + plist_name;
    return CanBeRead(path) &&
           zu::ExecuteCommand::RunsSilently("/bin/launchctl", {"unload", path});
  });
}

// Loading goes through sudo and unloading does not: both are the command lines
// that the agent's installations allow for.
uint32_t StartKext(const char* kext_file_name) {
  if (kext_file_name == nullptr) return 0;
  return zu::Guarded(__func__, 0u, [=] {
    return zu::ExecuteCommand::RunsSilently(
        "/usr/bin/sudo",
        {"/sbin/kextload", std::string(kExtensions) + kext_file_name});
  });
}

uint32_t StopKext(const char* bundle_id) {
  if (bundle_id == nullptr) return 0;
  return zu::Guarded(__func__, 0u, [=] {
    return zu::ExecuteCommand::RunsSilently("/sbin/kextunload",
                                            {"-b", bundle_id});
  });
}
