#include "process/memory_map_tool.h"

#include <string.h>
#include <algorithm>
#include <string>

#include "ZuHelper.h"
#include "platform/task_memory.h"
#include "support/execute_command.h"
#include "support/guarded.h"
#include "support/log.h"
#include "support/text_lines.h"
#include "support/utf8.h"

namespace zu::process {
namespace {

constexpr uint32_t kSkipsVendorFrom = 10016000;

char ToLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool TakePrefix(std::string_view& text, std::string_view lower_case) {
  const std::string_view start = text.substr(0, lower_case.size());
  if (!std::ranges::equal(start, lower_case, {}, ToLower)) return false;
  text.remove_prefix(start.size());
  return true;
}

}  // namespace

bool IsExecutableMapping(std::string_view line) {
  if (TakePrefix(line, "__text")) return !line.empty();
  // Ignoring case is Unicode's full case folding. Of all characters beyond
  // ASCII only one folds to letters of the expression: the ligature of f and i.
  if (!TakePrefix(line, "mapped file") &&
      !TakePrefix(line, "mapped \uFB01le")) {
    return false;
  }
  for (size_t bracket = line.find(']', 1); bracket != line.npos;
       bracket = line.find(']', bracket + 1)) {
    std::string_view rest = line.substr(bracket + 1);
    const size_t spaces = std::min(rest.find_first_not_of(' '), rest.size());
    rest.remove_prefix(spaces);
    if (spaces > 0 && TakePrefix(rest, "r-x/") && !rest.empty()) return true;
  }
  return false;
}

void ListExecutableMappings(std::string_view text, PathList& list) {
  constexpr std::string_view kSeparator = " /";
  // Each is searched for in all that was listed before.
  for (size_t images = 0; images < platform::kMaxImages && !text.empty();) {
    const std::string_view line = TakeLine(text);
    if (!IsExecutableMapping(line)) continue;
    const size_t separator = line.find(kSeparator);
    if (separator == line.npos) continue;
    const std::string_view path = line.substr(separator + kSeparator.size());
    if (path.find(kSeparator) != path.npos) continue;
    ++images;
    // Part of another path counts as listed, too.
    const std::string_view listed = list.written();
    if (path.empty() || ::memmem(listed.data(), listed.size(), path.data(),
                                 path.size()) != nullptr) {
      continue;
    }
    // Hosts know that the length is in UTF-16 units and counts bytes: a path
    // beyond ASCII loses its end.
    list.Append("/", path.substr(0, CountUtf16Units(path)), '\n');
  }
  if (list.complete()) list.Replace('\n', '\0');
}

}  // namespace zu::process

uint32_t GetProcessModulesImpl(int32_t pid, char* buffer, uint32_t* size) {
  return zu::Guarded(__func__, ZU_PROCESS_EXCEPTION, [=] {
    if (gOSVersion >= zu::process::kSkipsVendorFrom &&
        Util_clientIsSignedByZubrant(pid) != 0) {
      zu::LogError("%s(): skip a process signed by Zubrant, (%d)",
                   "GetProcessModulesImpl", pid);
      return ZU_PROCESS_OK;
    }
    const auto text =
        zu::ExecuteCommand::Run("/usr/bin/vmmap", {"-w", std::to_string(pid)});
    if (!text || text->empty()) return ZU_PROCESS_NO_DATA;
    zu::process::PathList list(buffer, *size);
    zu::process::ListExecutableMappings(*text, list);
    *size = list.needed();
    return ZU_PROCESS_OK;
  });
}
