#include "platform/linux/mount_table.h"

#include <sstream>
#include <utility>

#include "platform/linux/text_file.h"

namespace zu::platform {
namespace {

std::optional<Mount> ParseMount(const std::string& line) {
  std::istringstream fields(line);
  Mount mount;
  std::string skipped;
  fields >> skipped >> skipped >> mount.major;
  fields.ignore(1, ':') >> mount.minor;
  // Then some that may be there or not, up to a dash.
  while (fields >> skipped && skipped != "-") continue;
  if (!(fields >> mount.type).ignore(1)) return std::nullopt;
  std::getline(fields, mount.source, ' ');  // May be empty.
  fields >> mount.options;
  return mount;
}

// Of the lines that start with `start`, until `body` returns false.
template <typename Body>
void ForEachMount(const std::string& start, Body body) {
  std::istringstream table(ReadTextFile("/proc/self/mountinfo"));
  for (std::string line; std::getline(table, line);) {
    if (!line.starts_with(start)) continue;
    auto mount = ParseMount(line);
    if (mount && !body(std::move(*mount))) return;
  }
}

}  // namespace

std::vector<Mount> ReadMountTable() {
  std::vector<Mount> mounts;
  ForEachMount("", [&](Mount mount) {
    mounts.push_back(std::move(mount));
    return true;
  });
  return mounts;
}

std::optional<Mount> FindMount(const std::string& number) {
  std::optional<Mount> found;
  ForEachMount(number + " ", [&](Mount mount) {
    found = std::move(mount);
    return false;
  });
  return found;
}

}  // namespace zu::platform
