// What is mounted, as this process sees it.
#ifndef ZU_PLATFORM_LINUX_MOUNT_TABLE_H_
#define ZU_PLATFORM_LINUX_MOUNT_TABLE_H_

#include <optional>
#include <string>
#include <vector>

namespace zu::platform {

struct Mount {
  unsigned major = 0;  // 0: the device number stands for no device.
  unsigned minor = 0;
  std::string type = {};
  std::string source = {};
  std::string options = {};  // The file system's own, "rw,name=value".
};

// The table in proc(5); empty when it cannot be read.
std::vector<Mount> ReadMountTable();

// The mount with that number, if the table has it.
std::optional<Mount> FindMount(const std::string& number);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_MOUNT_TABLE_H_
