// What the user interface's command line was, for its next start.
#ifndef ZU_COMPONENTS_UI_ARGUMENTS_H_
#define ZU_COMPONENTS_UI_ARGUMENTS_H_

#include <cstdint>
#include <string_view>

namespace zu::components {

// Puts the text into a file in the user's application-support directory, which
// is made where it is missing. Does what it can, and nothing for a user without
// a name; never follows a link in the user's home, since we may be root.
void SaveUiArguments(uint32_t user, std::string_view arguments);

}  // namespace zu::components

#endif  // ZU_COMPONENTS_UI_ARGUMENTS_H_
