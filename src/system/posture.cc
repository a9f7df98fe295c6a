// Probes of the system's security settings: what one tool each says.

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "ZuHelper.h"
#include "platform/console.h"
#include "support/accounts.h"
#include "support/execute_command.h"
#include "support/guarded.h"

namespace zu::system {
namespace {

// A tool that could not run reads as off; one that printed nothing, as on.
uint8_t IsOn(const char* probe, std::string_view off, const char* tool,
             std::initializer_list<const char*> arguments) {
  return Guarded(probe, uint8_t{0}, [&]() -> uint8_t {
    const std::optional<std::string> output =
        ExecuteCommand::Run(tool, {arguments.begin(), arguments.end()});
    return output && output->find(off) == output->npos ? 1 : 0;
  });
}

// In every build type, and in the words of the platform's assertions: reports
// of such an end are known by them.
[[noreturn]] void StopWithoutStore() {
  std::fprintf(stderr,
               "Assertion failed: (store != NULL), function "
               "WebSitesRestricationLevel, file SystemInfo, line %d.\n",
               __LINE__);
  std::abort();
}

bool HasManagedSettings(const std::string& user) {
  // No shell: the bar is an argument, too, which the tool takes for the name of
  // an attribute, like those around it.
  const std::optional<std::string> output = ExecuteCommand::Run(
      "/usr/bin/dscl",
      {".", "-read", "/Users/" + user, "|", "grep", "MCXSettings:"});
  return output && !output->empty();
}

}  // namespace
}  // namespace zu::system

using namespace zu::system;

uint8_t IsFireWallOn(void) {
  return IsOn(__func__, "Status: Disabled", "/usr/bin/sudo",
              {"/sbin/pfctl", "-si"});
}

// The other way round on purpose: hosts know that 1 stands for a check that is
// off or was never set.
uint8_t IsAutoCheckUpdateEnabled(void) {
  return IsOn(__func__, "1", "/usr/bin/defaults",
              {"read", "/Library/Preferences/com.apple.SoftwareUpdate",
               "AutomaticCheckEnabled"});
}

uint8_t IsFileVaultEnabled(void) {
  return IsOn(__func__, "FileVault is Off", "/usr/bin/fdesetup", {"status"});
}

uint8_t IsGateKeeperEnabled(void) {
  return IsOn(__func__, "assessments disabled", "/usr/sbin/spctl",
              {"--status"});
}

int32_t WebSitesRestricationLevel(void) {
  return zu::Guarded(__func__, 0, [] {
    using zu::platform::ConsoleResult;
    constexpr int32_t kNotApplicable = -1;
    std::string user;
    const ConsoleResult result = zu::platform::ReadConsoleUser(user);
    if (result == ConsoleResult::kUnreachable) StopWithoutStore();
    if (result == ConsoleResult::kNobody || user == "loginwindow" ||
        zu::GroupLists("admin", user)) {
      return kNotApplicable;
    }
    return HasManagedSettings(user) ? 1 : 0;
  });
}
