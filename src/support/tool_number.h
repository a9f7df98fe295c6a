// Numbers among what tools print.
#ifndef ZU_SUPPORT_TOOL_NUMBER_H_
#define ZU_SUPPORT_TOOL_NUMBER_H_

#include <cstdint>
#include <string_view>

namespace zu {

// The number that is left of `text` without what stands before its first digit
// and behind its last one ("kern.osrevision: 199506\n"), up to anything else in
// there. A sign is no digit. 0 without digits, INT64_MAX when there are too
// many.
[[nodiscard]] int64_t ParseToolNumber(std::string_view text);

}  // namespace zu

#endif  // ZU_SUPPORT_TOOL_NUMBER_H_
