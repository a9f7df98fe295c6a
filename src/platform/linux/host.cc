#include "platform/host.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <string_view>
#include <utility>

#include "support/file_descriptor.h"
#include "support/utf8.h"

namespace zu::platform {
namespace {

constexpr char kMachineInformation[] = "/etc/machine-info";
constexpr std::string_view kBlanks = " \t\r";

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

// Empty when it cannot be read.
std::string ReadText(const char* path) {
  const FileDescriptor file(
      RetryOnInterrupt([=] { return ::open(path, O_RDONLY | O_CLOEXEC); }));
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t count = RetryOnInterrupt(
        [&] { return ::read(file.get(), buffer, sizeof buffer); });
    if (count <= 0) return text;
    text.append(buffer, static_cast<size_t>(count));
  }
}

// The rest of an assignment's line, or lines, without the quoting. Takes it off
// `text`.
std::string TakeValue(std::string_view& text) {
  std::string value;
  size_t size = 0;  // Less the blanks at the end that nothing quotes.
  char quote = '\0';
  size_t next = 0;
  while (next < text.size() && (quote != '\0' || text[next] != '\n')) {
    char c = text[next++];
    if (quote != '\0' ? c == quote : c == '"' || c == '\'') {
      quote = quote != '\0' ? '\0' : c;
      continue;
    }
    bool plain = quote == '\0';
    if (c == '\\' && quote != '\'' && next < text.size()) {
      plain = false;
      c = text[next++];
      if (c == '\n') continue;
      // In double quotes most characters need none, and then keep it.
      constexpr std::string_view kEscaped = "\"$\\`";
      if (quote == '"' && kEscaped.find(c) == kEscaped.npos) value += '\\';
    }
    const bool blank = plain && kBlanks.find(c) != kBlanks.npos;
    if (blank && value.empty()) continue;
    value += c;
    if (!blank) size = value.size();
  }
  text.remove_prefix(next);
  value.resize(size);
  return value;
}

// The variable's last value in a file of assignments, whose quoting is that of
// shells; empty when it has none.
std::string ParseAssignments(std::string_view text, std::string_view name) {
  const auto skip_to = [&text](size_t position) {
    text.remove_prefix(std::min(position, text.size()));
  };
  std::string value;
  while (skip_to(text.find_first_not_of(" \t\r\n")), !text.empty()) {
    const size_t mark = text.find_first_of("=\n");
    const bool comment = text.front() == '#' || text.front() == ';';
    if (comment || mark == text.npos || text[mark] == '\n') {
      skip_to(text.find('\n'));
      continue;
    }
    const bool found = text.substr(0, mark) == name;
    text.remove_prefix(mark + 1);
    std::string taken = TakeValue(text);
    if (found) value = std::move(taken);
  }
  return value;
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
      ParseAssignments(ReadText(kMachineInformation), "PRETTY_HOSTNAME"));
  return name ? name : ReadNetworkName();
}

std::optional<std::string> ReadPlatformProperty(const char* name) {
  for (const auto& property : kProperties) {
    if (property.name != name) continue;
    std::string text = ReadText(property.path);
    if (text.ends_with('\n')) text.pop_back();
    return UnlessEmpty(std::move(text));
  }
  return std::nullopt;
}

}  // namespace zu::platform
