#include "components/ui_application.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "ZuHelper.h"
#include "build_values.h"
#include "support/execute_command.h"
#include "support/guarded.h"

namespace zu::components {
namespace {

// By their installation types, less 1.
constexpr std::string_view kEditions[] = {"ZubrantUI", "TalvexDefenseUI",
                                          "TalvexShieldProUI"};

// The last line looks like
//   <string>/Applications/Name.app/Contents/MacOS/Name</string>
// so the text's last slash is that of the closing tag, with the name and "<"
// before it.
std::optional<std::string> ParseUiName(std::string_view text) {
  const size_t end = text.rfind('/');
  if (end == text.npos || end == 0) return std::nullopt;
  const size_t before = text.rfind('/', end - 1);
  if (before == text.npos || before + 1 == end) return std::nullopt;
  // Less its last character, of however many bytes.
  size_t last = end - 1;
  while (last > before + 1 && (text[last] & 0xC0) == 0x80) --last;
  return std::string(text.substr(before + 1, last - before - 1));
}

}  // namespace

std::optional<std::string> ReadUiName() {
  const std::optional<std::string> lines = ExecuteCommand::Run(
      "/usr/bin/grep", {"<string>/Applications/",
                        "/Library/LaunchAgents/" ZU_UI_AGENT_LABEL ".plist"});
  if (!lines) return std::nullopt;
  return ParseUiName(*lines);
}

uint32_t FindEdition(const std::optional<std::string>& name) {
  const auto* const edition =
      std::find(std::begin(kEditions), std::end(kEditions), name);
  return edition == std::end(kEditions)
             ? 0
             : static_cast<uint32_t>(edition - kEditions) + 1;
}

}  // namespace zu::components

uint32_t getInstallationType(void) {
  using namespace zu::components;
  return zu::Guarded(__func__, 0u, [] { return FindEdition(ReadUiName()); });
}
