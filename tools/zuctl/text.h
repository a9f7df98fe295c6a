// Text from anywhere, made fit for terminals and for JSON.
#ifndef ZU_TOOLS_ZUCTL_TEXT_H_
#define ZU_TOOLS_ZUCTL_TEXT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zu::ctl {

// `text` with "\xNN" for each byte that is not UTF-8 or belongs to a character
// which controls terminals or the order in which they show others.
std::string Printable(std::string_view text);

// A JSON string. A byte that is not UTF-8 becomes U+FFFD; what controls
// terminals is escaped.
std::string QuoteJson(std::string_view text);
// An array of JSON texts.
std::string JsonArray(const std::vector<std::string>& elements);

// How many columns of a terminal a printable text takes.
size_t ColumnsOf(std::string_view text);

// A printable text, with "..." in the place of its middle when it takes more
// than `columns`.
std::string CutMiddle(std::string_view text, size_t columns);

// "1.5 GiB": three digits of what is easiest to read.
std::string SizeText(uint64_t bytes);

}  // namespace zu::ctl

#endif  // ZU_TOOLS_ZUCTL_TEXT_H_
