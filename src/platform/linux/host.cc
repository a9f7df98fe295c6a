#include "platform/host.h"

#include <unistd.h>
#include <algorithm>
#include <string_view>
#include <utility>

#include "platform/linux/text_file.h"
#include "support/utf8.h"

namespace zu::platform {
namespace {

constexpr char kMachineInformation[] = "/etc/machine-info";
constexpr std::string_view kBlanks = " \t";

// Properties by the names that hosts know them by, and the files that have the
// nearest thing.
constexpr struct {
  std::string_view name;
  const char* path;
} kProperties[] = {
    {"IOPlatformSerialNumber", "/sys/class/dmi/id/product_serial"},
    {"IOPlatformUUID", "/sys/class/dmi/id/product_uuid"},
    {"model", "/sys/class/dmi/id/product_name"},
    {"manufacturer", "/sys/class/dmi/id/sys_vendor"},
};

bool IsNewline(char c) { return c == '\n' || c == '\r'; }

// The rest of an assignment's line, or lines, without the quoting. Takes it off
// `text`. Quotes open only ahead of the first character that stands outside of
// them: in "Kate's Laptop" there are none. Escaped newlines join lines.
std::string TakeValue(std::string_view& text) {
  std::string value;
  size_t size = 0;  // Less the blanks at the end that nothing quotes.
  char quote = '\0';
  bool begun = false;  // That first character has come.
  size_t next = 0;
  while (next < text.size()) {
    const char c = text[next++];
    if (c == '\\' && quote != '\'') {
      begun = begun || quote == '\0';
      const char escaped = next < text.size() ? text[next++] : '\n';
      // In double quotes most characters need none, and then keep it.
      constexpr std::string_view kEscaped = "\"$\\`\n";
      if (quote != '\0' && kEscaped.find(escaped) == kEscaped.npos) value += c;
      if (quote != '\0' ? escaped != '\n' : !IsNewline(escaped)) {
        value += escaped;
      }
      size = value.size();
      continue;
    }
    if (quote != '\0') {
      if (c != quote) {
        value += c;
      } else {
        quote = '\0';
      }
      size = value.size();
      continue;
    }
    if (IsNewline(c)) break;
    const bool blank = kBlanks.find(c) != kBlanks.npos;
    if (!begun && blank) continue;
    if (!begun && (c == '"' || c == '\'')) {
      quote = c;
      continue;
    }
    begun = true;
    value += c;
    if (!blank) size = value.size();
  }
  text.remove_prefix(next);
  value.resize(size);
  return value;
}

// Takes a comment off `text`, which a newline ends that is not escaped.
void SkipComment(std::string_view& text) {
  size_t next = 0;
  while (next < text.size() && !IsNewline(text[next])) {
    next += text[next] == '\\' ? 2 : 1;
  }
  text.remove_prefix(std::min(next, text.size()));
}

// The variable's last value in a file of assignments, whose quoting is nearly
// that of shells; empty when it has none.
std::string ParseAssignments(std::string_view text, std::string_view name) {
  std::string value;
  for (;;) {
    text.remove_prefix(
        std::min(text.find_first_not_of(" \t\n\r"), text.size()));
    if (text.empty()) return value;
    if (text.front() == '#' || text.front() == ';') {
      SkipComment(text);
      continue;
    }
    const size_t mark = std::min(text.find_first_of("=\n\r", 1), text.size());
    std::string_view key = text.substr(0, mark);
    text.remove_prefix(mark);
    if (!text.starts_with('=')) continue;
    text.remove_prefix(1);
    key = key.substr(0, key.find_last_not_of(kBlanks) + 1);
    std::string taken = TakeValue(text);
    if (key == name) value = std::move(taken);
  }
}

std::optional<std::string> UnlessEmpty(std::string text) {
  if (text.empty() || !IsValidUtf8(text)) return std::nullopt;
  return text;
}

}  // namespace

std::optional<std::string> ReadNetworkName() {
  char name[256] = {};  // The kernel's names have 64 characters at most.
  if (::gethostname(name, sizeof name - 1) != 0) return std::nullopt;
  return UnlessEmpty(name);
}

std::optional<std::string> ReadLocalizedName() {
  std::optional<std::string> name = UnlessEmpty(
      ParseAssignments(ReadTextFile(kMachineInformation), "PRETTY_HOSTNAME"));
  return name ? name : ReadNetworkName();
}

std::optional<std::string> ReadPlatformProperty(const char* name) {
  for (const auto& property : kProperties) {
    if (property.name != name) continue;
    std::string text = ReadTextFile(property.path);
    if (text.ends_with('\n')) text.pop_back();
    return UnlessEmpty(std::move(text));
  }
  return std::nullopt;
}

}  // namespace zu::platform
