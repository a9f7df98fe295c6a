#include "platform/console.h"

#include "platform/linux/login_manager.h"

namespace zu::platform {

ConsoleResult ReadConsoleUser(std::string& user) {
  user = ActiveSessionUser();
  return user.empty() ? ConsoleResult::kNobody : ConsoleResult::kUser;
}

}  // namespace zu::platform
