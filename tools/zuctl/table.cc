#include "table.h"

#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <utility>

#include "text.h"

namespace zu::ctl {
namespace {

const char* EscapeOf(Tone tone) {
  switch (tone) {
    case Tone::kTitle:
      return "\x1b[1m";
    case Tone::kGood:
      return "\x1b[32m";
    case Tone::kBad:
      return "\x1b[31m";
    case Tone::kUnknown:
      return "\x1b[2m";
    case Tone::kPlain:
      break;
  }
  return "";
}

std::string Coloured(std::string text, Tone tone, const Screen& screen) {
  if (!screen.colours || tone == Tone::kPlain) return text;
  return EscapeOf(tone) + std::move(text) + "\x1b[0m";
}

bool IsSet(const char* variable) {
  const char* const value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

size_t ReadColumns() {
  constexpr size_t kUsual = 80;
  if (const char* const text = std::getenv("COLUMNS")) {
    char* end = nullptr;
    const unsigned long columns = std::strtoul(text, &end, 10);
    if (*end == '\0' && columns > 0) return columns;
  }
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
    return kUsual;
  }
  return size.ws_col;
}

}  // namespace

Value TextValue(std::string_view text) {
  return {Printable(text), QuoteJson(text)};
}

Value NumberValue(uint64_t number) {
  return {std::to_string(number), std::to_string(number)};
}

Value SizeValue(uint64_t bytes) {
  return {SizeText(bytes), std::to_string(bytes)};
}

Value Unknown(std::string text) {
  return {std::move(text), "null", Tone::kUnknown};
}

Value Flag(bool flag, std::string_view yes, std::string_view no) {
  return {std::string(flag ? yes : no), flag ? "true" : "false"};
}

std::string ToJson(const std::vector<Section>& sections) {
  std::string json = "{";
  for (const Section& section : sections) {
    if (json.size() > 1) json += ',';
    json += QuoteJson(section.key) + ":{";
    bool first = true;
    for (const Fact& fact : section.facts) {
      if (!std::exchange(first, false)) json += ',';
      json += QuoteJson(fact.key) + ':' + fact.value.json;
    }
    json += '}';
  }
  return json + '}';
}

Screen ReadScreen(const Options& options) {
  if (::isatty(STDOUT_FILENO) == 0) return {};
  // For the widths of characters; numbers are written as everywhere.
  std::setlocale(LC_CTYPE, "");
  const char* const terminal = std::getenv("TERM");
  return {ReadColumns(), !options.no_color && !IsSet("NO_COLOR") &&
                             terminal != nullptr &&
                             std::string_view(terminal) != "dumb"};
}

std::string ToLines(const std::vector<Row>& rows, size_t right,
                    std::string_view indent, const Screen& screen) {
  constexpr std::string_view kGap = "  ";
  // What a line that is too narrow for its other cells still has for the last.
  constexpr size_t kLeast = 8;
  std::vector<size_t> widths;
  for (const Row& row : rows) {
    widths.resize(std::max(widths.size(), row.cells.size()));
    for (size_t i = 0; i + 1 < row.cells.size(); ++i) {
      widths[i] = std::max(widths[i], ColumnsOf(row.cells[i]));
    }
  }
  size_t used = indent.size();
  for (size_t i = 0; i + 1 < widths.size(); ++i)
    used += widths[i] + kGap.size();
  std::string lines;
  for (const Row& row : rows) {
    std::string line(indent);
    for (size_t i = 0; i + 1 < row.cells.size(); ++i) {
      const std::string blanks(widths[i] - ColumnsOf(row.cells[i]), ' ');
      line += i < right ? blanks + row.cells[i] : row.cells[i] + blanks;
      line += kGap;
    }
    std::string last = row.cells.back();
    if (screen.columns) {
      last = CutMiddle(
          last,
          std::max(kLeast, *screen.columns - std::min(used, *screen.columns)));
    }
    const bool title = row.tone == Tone::kTitle;
    line += title ? last : Coloured(std::move(last), row.tone, screen);
    lines += title ? Coloured(std::move(line), row.tone, screen) : line;
    lines += '\n';
  }
  return lines;
}

Exit Print(const std::vector<Section>& sections, const Options& options) {
  if (options.json) return PrintLine(ToJson(sections));
  const Screen screen = ReadScreen(options);
  std::string text;
  // One width of the labels for all sections.
  size_t width = 0;
  for (const Section& section : sections) {
    for (const Fact& fact : section.facts) {
      width = std::max(width, ColumnsOf(fact.label));
    }
  }
  // A long label (a path, say) must leave room for what is said of it.
  if (screen.columns) width = std::min(width, *screen.columns / 2);
  for (const Section& section : sections) {
    if (!text.empty()) text += '\n';
    text += ToLines({{{section.title}, Tone::kTitle}}, 0, "", screen);
    std::vector<Row> rows;
    for (const Fact& fact : section.facts) {
      std::string label =
          screen.columns ? CutMiddle(fact.label, width) : fact.label;
      label.append(width - ColumnsOf(label), ' ');
      rows.push_back({{std::move(label), fact.value.text}, fact.value.tone});
    }
    text += ToLines(rows, 0, "  ", screen);
  }
  return PrintLine(text);
}

}  // namespace zu::ctl
