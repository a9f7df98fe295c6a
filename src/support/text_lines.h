// Lines of a text, as regular expressions of the platform see them.
#ifndef ZU_SUPPORT_TEXT_LINES_H_
#define ZU_SUPPORT_TEXT_LINES_H_

#include <string_view>

namespace zu {

// Takes the first line off a UTF-8 text, with what ends it. More than a line
// feed does: everything that ends a line for the expression's "^", "$" and ".".
// A return before a line feed leaves an empty line between them.
[[nodiscard]] std::string_view TakeLine(std::string_view& text);

}  // namespace zu

#endif  // ZU_SUPPORT_TEXT_LINES_H_
