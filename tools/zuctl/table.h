// Facts as aligned text for people, or as JSON for programs.
#ifndef ZU_TOOLS_ZUCTL_TABLE_H_
#define ZU_TOOLS_ZUCTL_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zuctl.h"

namespace zu::ctl {

enum class Tone { kPlain, kTitle, kGood, kBad, kUnknown };

struct Value {
  std::string text;  // Printable.
  std::string json;
  Tone tone = Tone::kPlain;
};

Value TextValue(std::string_view text);
Value NumberValue(uint64_t number);
Value SizeValue(uint64_t bytes);
// null in JSON. `text` says what is known instead.
Value Unknown(std::string text = "unknown");
// true or false in JSON.
Value Flag(bool flag, std::string_view yes = "yes", std::string_view no = "no");

struct Fact {
  std::string key;    // In JSON.
  std::string label;  // Printable.
  Value value;
};
struct Section {
  const char* key;
  const char* title;
  std::vector<Fact> facts;
};

// {"section":{"key":value,...},...}
std::string ToJson(const std::vector<Section>& sections);

// Where the text goes to.
struct Screen {
  std::optional<size_t> columns;  // Absent where lines may have any length.
  bool colours = false;
};
// Of standard output.
Screen ReadScreen(const Options& options);

struct Row {
  std::vector<std::string> cells;  // Printable.
  Tone tone = Tone::kPlain;        // Of the last one; of all for a title.
};

// Lines with the cells below each other, the first `right` columns flush right.
// Of the last cell, the middle is cut out when a line gets too long.
std::string ToLines(const std::vector<Row>& rows, size_t right,
                    std::string_view indent, const Screen& screen);

// Prints the sections as the options say.
Exit Print(const std::vector<Section>& sections, const Options& options);

}  // namespace zu::ctl

#endif  // ZU_TOOLS_ZUCTL_TABLE_H_
