#include "platform/process_owner.h"

#include <sys/stat.h>
#include <string>

namespace zu::platform {

// The directory itself keeps the owner that a process which may not be traced
// hides in its entries.
std::optional<uint32_t> ReadProcessOwner(int32_t pid) {
  struct stat status;
  const std::string directory = "/proc/" + std::to_string(pid);
  if (::stat(directory.c_str(), &status) != 0) return std::nullopt;
  return status.st_uid;
}

}  // namespace zu::platform
