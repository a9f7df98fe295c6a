#include "support/tool_number.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace zu {

int64_t ParseToolNumber(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_of("0123456789"), text.size()));
  int64_t number = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc::result_out_of_range ? INT64_MAX : number;
}

}  // namespace zu
