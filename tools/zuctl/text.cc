#include "text.h"

#include <wchar.h>
#include <algorithm>
#include <cstdio>

#include "support/utf8.h"

namespace zu::ctl {
namespace {

constexpr char32_t kNone = 0xFFFFFFFF;

// Takes the first character off a text that is not empty, or a byte that begins
// none; its value is then kNone.
struct Character {
  std::string_view bytes;
  char32_t value;
};
Character TakeCharacter(std::string_view& text) {
  constexpr size_t kLongest = 4;
  Character character{text.substr(0, 1), kNone};
  for (size_t size = 1; size <= std::min(kLongest, text.size()); ++size) {
    if (!IsValidUtf8(text.substr(0, size))) continue;
    character.bytes = text.substr(0, size);
    const auto first = static_cast<unsigned char>(text[0]);
    character.value = size == 1 ? first : first & (0xFFu >> (size + 1));
    for (const char c : text.substr(1, size - 1)) {
      character.value = character.value << 6 | (c & 0x3F);
    }
    break;
  }
  text.remove_prefix(character.bytes.size());
  return character;
}

constexpr struct {
  char32_t first;
  char32_t last;
} kControls[] = {
    {0, 0x1F},        {0x7F, 0x9F},     {0x61C, 0x61C}, {0x200E, 0x200F},
    {0x2028, 0x202E}, {0x2066, 0x2069}, {kNone, kNone},
};
bool IsControl(char32_t value) {
  return std::any_of(std::begin(kControls), std::end(kControls),
                     [value](const auto& range) {
                       return range.first <= value && value <= range.last;
                     });
}

template <typename... Arguments>
std::string Format(const char* format, Arguments... arguments) {
  char text[64];
  std::snprintf(text, sizeof text, format, arguments...);
  return text;
}

// Without a locale that knows the character, it takes one as most do.
size_t ColumnsOf(char32_t value) {
  const int columns = ::wcwidth(static_cast<wchar_t>(value));
  return columns < 0 ? 1 : static_cast<size_t>(columns);
}

// The most characters from the start that fit.
std::string_view Start(std::string_view text, size_t columns) {
  std::string_view rest = text;
  size_t size = 0;
  while (!rest.empty()) {
    const Character character = TakeCharacter(rest);
    const size_t width = ColumnsOf(character.value);
    if (width > columns) break;
    columns -= width;
    size += character.bytes.size();
  }
  return text.substr(0, size);
}

}  // namespace

std::string Printable(std::string_view text) {
  std::string printable;
  while (!text.empty()) {
    const Character character = TakeCharacter(text);
    if (!IsControl(character.value)) {
      printable.append(character.bytes);
      continue;
    }
    for (const char c : character.bytes) {
      printable += Format("\\x%02X", unsigned{static_cast<unsigned char>(c)});
    }
  }
  return printable;
}

std::string QuoteJson(std::string_view text) {
  std::string quoted = "\"";
  while (!text.empty()) {
    const Character character = TakeCharacter(text);
    if (IsControl(character.value)) {
      const char32_t value =
          character.value == kNone ? U'\uFFFD' : character.value;
      quoted += Format("\\u%04x", static_cast<unsigned>(value));
    } else {
      if (character.value == '"' || character.value == '\\') quoted += '\\';
      quoted.append(character.bytes);
    }
  }
  return quoted + '"';
}

std::string JsonArray(const std::vector<std::string>& elements) {
  std::string array = "[";
  for (const std::string& element : elements) {
    if (array.size() > 1) array += ',';
    array += element;
  }
  return array + ']';
}

size_t ColumnsOf(std::string_view text) {
  size_t columns = 0;
  while (!text.empty()) columns += ColumnsOf(TakeCharacter(text).value);
  return columns;
}

std::string CutMiddle(std::string_view text, size_t columns) {
  constexpr std::string_view kMark = "...";
  size_t left = ColumnsOf(text);
  if (left <= columns) return std::string(text);
  if (columns <= kMark.size()) return std::string(kMark.substr(0, columns));
  const size_t room = columns - kMark.size();
  // The end of a path says more than its start.
  const std::string_view start = Start(text, room / 2);
  const size_t end = room - ColumnsOf(start);
  std::string_view rest = text;
  while (left > end) left -= ColumnsOf(TakeCharacter(rest).value);
  return std::string(start).append(kMark).append(rest);
}

std::string SizeText(uint64_t bytes) {
  constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  constexpr double kStep = 1024;
  constexpr double kThreeDigits = 999.5;  // More would be rounded to four.
  if (bytes < 1000) return std::to_string(bytes) + " bytes";
  double size = static_cast<double>(bytes) / kStep;
  const char* const* unit = kUnits;
  while (size >= kThreeDigits) {
    size /= kStep;
    ++unit;
  }
  const int decimals = size < 9.995 ? 2 : size < 99.95 ? 1 : 0;
  return Format("%.*f %s", decimals, size, *unit);
}

}  // namespace zu::ctl
