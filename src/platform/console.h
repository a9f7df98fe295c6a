// Who sits at the machine's own screen.
#ifndef ZU_PLATFORM_CONSOLE_H_
#define ZU_PLATFORM_CONSOLE_H_

#include <string>

namespace zu::platform {

enum class ConsoleResult { kUser, kNobody, kUnreachable };

// `user` gets the login name; the macOS login window counts as one. Unreachable
// stands for a system whose store of such facts is not there at all (never on
// Linux). Blocks while the
// databases of users are asked.
[[nodiscard]] ConsoleResult ReadConsoleUser(std::string& user);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_CONSOLE_H_
