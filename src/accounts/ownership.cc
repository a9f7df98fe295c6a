// Owners and permissions of files, through the system's tools.

#include <sys/stat.h>
#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ZuHelper.h"
#include "support/execute_command.h"
#include "support/guarded.h"

namespace zu::accounts {
namespace {

// What ends a word, as the platform's strings have it, in UTF-8.
constexpr std::string_view kSpaces[] = {
    "\t",           "\n",           "\v",
    "\f",           "\r",           " ",
    "\xC2\x85",     "\xC2\xA0",     "\xE1\x9A\x80",
    "\xE2\x80\x80", "\xE2\x80\x81", "\xE2\x80\x82",
    "\xE2\x80\x83", "\xE2\x80\x84", "\xE2\x80\x85",
    "\xE2\x80\x86", "\xE2\x80\x87", "\xE2\x80\x88",
    "\xE2\x80\x89", "\xE2\x80\x8A", "\xE2\x80\x8B",
    "\xE2\x80\xA8", "\xE2\x80\xA9", "\xE2\x80\xAF",
    "\xE2\x81\x9F", "\xE3\x80\x80"};

// Empty when the text begins with a space.
std::string FirstWord(std::string_view text) {
  size_t end = text.size();
  for (const std::string_view space : kSpaces) {
    end = std::min(end, text.find(space));
  }
  return std::string(text.substr(0, end));
}

bool IsEmpty(const char* text) { return text == nullptr || *text == '\0'; }

}  // namespace
}  // namespace zu::accounts

using namespace zu::accounts;

uint8_t ChangeFileOwnerToCurrentUser(const char* path) {
  if (IsEmpty(path)) return 0;
  return zu::Guarded(__func__, uint8_t{0}, [=] {
    const std::optional<std::string> users =
        zu::ExecuteCommand::Run("/usr/bin/who", {"-m"});
    if (!users || users->empty()) return false;
    return zu::ExecuteCommand::RunsSilently("/usr/sbin/chown",
                                            {FirstWord(*users), path});
  });
}

uint8_t ChangeFileOwnerGroup(const char* path, const char* user,
                             const char* group) {
  struct stat status;
  if (IsEmpty(path) || IsEmpty(user) || IsEmpty(group) ||
      ::stat(path, &status) != 0) {
    return 0;
  }
  return zu::Guarded(__func__, uint8_t{0}, [=] {
    std::vector<std::string> arguments = {"/usr/sbin/chown"};
    if (S_ISDIR(status.st_mode)) arguments.push_back("-R");
    arguments.push_back(user + std::string(":") + group);
    arguments.push_back(path);
    return zu::ExecuteCommand::RunsSilently("/usr/bin/sudo", arguments);
  });
}

uint8_t ChangeFilePermissions(const char* path, const char* mode,
                              int32_t recursive) {
  struct stat status;
  if (IsEmpty(path) || mode == nullptr || ::stat(path, &status) != 0) return 0;
  return zu::Guarded(__func__, uint8_t{0}, [=] {
    return zu::ExecuteCommand::RunsSilently(
        recursive != 0 ? "/bin/chmod -R" : "/bin/chmod", {mode, path});
  });
}
