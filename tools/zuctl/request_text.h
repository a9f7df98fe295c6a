// The text of a request.
#ifndef ZU_TOOLS_ZUCTL_REQUEST_TEXT_H_
#define ZU_TOOLS_ZUCTL_REQUEST_TEXT_H_

#include <optional>
#include <string>
#include <string_view>

namespace zu::ctl {

// The object `members` with "CMD_": `command` put before its members, which
// stay letter for letter. Nothing, with the reason in `why`, when `members` is
// not one JSON object or names a command itself, or `command` is not UTF-8.
std::optional<std::string> MakeRequestText(std::string_view command,
                                           std::string_view members,
                                           std::string& why);

}  // namespace zu::ctl

#endif  // ZU_TOOLS_ZUCTL_REQUEST_TEXT_H_
