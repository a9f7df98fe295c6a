// Integers that the JSON parser does not hold.
#ifndef ZU_PLATFORM_LINUX_JSON_NUMBERS_H_
#define ZU_PLATFORM_LINUX_JSON_NUMBERS_H_

#include <string>
#include <string_view>

namespace zu::platform {

// Gives every integer outside strings that 64 bits do not hold a ".0", which
// makes the parser read it as a floating-point number instead of refusing it.
// Text that is not JSON stays not JSON; nothing else is changed.
std::string WidenIntegers(std::string_view text);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_JSON_NUMBERS_H_
