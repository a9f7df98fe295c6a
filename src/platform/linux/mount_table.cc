#include "platform/linux/mount_table.h"

#include <sstream>
#include <utility>

#include "platform/linux/text_file.h"

namespace zu::platform {

std::vector<Mount> ReadMountTable() {
  std::vector<Mount> mounts;
  std::istringstream table(ReadTextFile("/proc/self/mountinfo"));
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    Mount mount;
    std::string skipped;
    fields >> mount.number >> skipped >> mount.major;
    fields.ignore(1, ':') >> mount.minor;
    // Then some that may be there or not, up to a dash.
    while (fields >> skipped && skipped != "-") continue;
    if (!(fields >> mount.type >> mount.source)) continue;
    fields >> mount.options;
    mounts.push_back(std::move(mount));
  }
  return mounts;
}

}  // namespace zu::platform
