#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ZuHelper.h"
#include "build_values.h"
#include "components/ui_application.h"
#include "components/ui_arguments.h"
#include "platform/process_owner.h"
#include "support/execute_command.h"
#include "support/guarded.h"

namespace zu::components {
namespace {

using Texts = std::vector<std::string>;

constexpr char kPropertyList[] =
    "/Library/LaunchAgents/" ZU_UI_AGENT_LABEL ".plist";

// From here on agents are started in a user's domain. The number tells as much
// as the application framework's own would, for which services that have no
// user interface would have to load it.
constexpr uint32_t kDomainsSince = 10010000;

bool RunLaunchctl(const Texts& words) {
  return ExecuteCommand::RunsSilently("/bin/launchctl", words);
}

// `words` comes with what the user before has left, and goes with what is left
// for the next. Deliberate: hosts that mean all of several users call once for
// each.
bool StartForUser(uint32_t user, Texts& words) {
  const std::string domain = "gui/" + std::to_string(user);
  const std::string target = domain + "/" ZU_UI_AGENT_LABEL;
  words.insert(words.end(), {"bootstrap", domain, kPropertyList});
  if (!RunLaunchctl(words)) return false;
  words = {"enable", target};
  if (!RunLaunchctl(words)) return false;
  words = {"kickstart", "-k", target};
  return RunLaunchctl(words);
}

bool Start(std::span<const uint32_t> users) {
  RunLaunchctl({"unload", kPropertyList});
  if (gOSVersion < kDomainsSince) return RunLaunchctl({"load", kPropertyList});
  bool started = false;
  Texts words;
  for (const uint32_t user : users) {
    if (StartForUser(user, words)) started = true;
  }
  return started;
}

// One piece more than there are separators; some may be empty.
Texts Split(std::string_view text, std::string_view separator) {
  Texts pieces;
  size_t end;
  while ((end = text.find(separator)) != text.npos) {
    pieces.emplace_back(text.substr(0, end));
    text.remove_prefix(end + separator.size());
  }
  pieces.emplace_back(text);
  return pieces;
}

// Blanks before the number and what follows it do not count; none reads as 0.
int32_t ParsePid(const std::string& text) {
  const long long number = std::strtoll(text.c_str(), nullptr, 10);
  const auto pid = static_cast<int32_t>(number);
  return pid == number ? pid : -1;  // Which no process has.
}

// The arguments are what stands between the program's path and its next
// occurrence, if any, or the end of the tool's line, newline included.
void SaveArgumentsOf(const std::string& pid, uint32_t owner,
                     const std::string& name) {
  const auto line = ExecuteCommand::Run("/bin/ps", {"-p", pid, "-o", "args="});
  if (!line) return;
  const Texts pieces = Split(*line, "/" + name + " ");
  if (pieces.size() < 2 || pieces[1].empty()) return;
  SaveUiArguments(owner, pieces[1]);
}

bool Stop(uint32_t* users, uint32_t& count) {
  const std::optional<std::string> name = ReadUiName();
  if (FindEdition(name) == 0) return true;
  const auto list = ExecuteCommand::Run("/usr/bin/pgrep", {*name});
  if (!list || list->empty()) return true;
  const Texts pids = Split(*list, "\n");
  if (pids.size() > count) {
    count = static_cast<uint32_t>(pids.size());
    return false;
  }
  count = 0;
  for (const std::string& pid : pids) {
    if (pid.empty()) continue;
    const std::optional<uint32_t> owner =
        platform::ReadProcessOwner(ParsePid(pid));
    if (!owner) continue;  // It has ended by itself.
    users[count++] = *owner;
    SaveArgumentsOf(pid, *owner, *name);
    ExecuteCommand::Run("/bin/kill", {pid});
  }
  return true;
}

}  // namespace
}  // namespace zu::components

uint32_t StartZuUI(const uint32_t* users, uint32_t count) {
  if (count == 0) return 1;
  if (users == nullptr) return 0;
  return zu::Guarded(__func__, 0u, [=]() -> uint32_t {
    return zu::components::Start({users, count});
  });
}

uint32_t StopZuUI(uint32_t* users, uint32_t* count) {
  if (users == nullptr || count == nullptr || *count == 0) return 0;
  return zu::Guarded(__func__, 0u, [=]() -> uint32_t {
    return zu::components::Stop(users, *count);
  });
}
