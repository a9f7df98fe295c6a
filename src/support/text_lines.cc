#include "support/text_lines.h"

#include <utility>

namespace zu {

std::string_view TakeLine(std::string_view& text) {
  constexpr std::string_view kEnds[] = {"\n",     "\v",     "\f",    "\r",
                                        "\u0085", "\u2028", "\u2029"};
  constexpr std::string_view kFirstBytes = "\n\v\f\r\xC2\xE2";
  for (size_t i = text.find_first_of(kFirstBytes); i != text.npos;
       i = text.find_first_of(kFirstBytes, i + 1)) {
    const std::string_view rest = text.substr(i);
    for (const std::string_view end : kEnds) {
      if (!rest.starts_with(end)) continue;
      const std::string_view line = text.substr(0, i);
      text = rest.substr(end.size());
      return line;
    }
  }
  return std::exchange(text, {});
}

}  // namespace zu
