// What the login manager (logind) knows.
//
// Its client library is loaded when the first question comes, and stays: few
// processes ask, and loading it takes longer than loading all of ours. A system
// without it, or without a login manager, has no answers.
#ifndef ZU_PLATFORM_LINUX_LOGIN_MANAGER_H_
#define ZU_PLATFORM_LINUX_LOGIN_MANAGER_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zu::platform {

// Sessions are here those of users: login screens have one, too, and so has
// what runs for a user who is not there. One that is closing does not count; it
// lasts for as long as something of it still runs.
//
// The user's name of each session, in the login manager's order.
std::vector<std::string> SessionUsers();

// The terminals ("tty1", "pts/0") of the sessions that have one.
std::vector<std::string> SessionTerminals();

// The name of the user whose session is in front at the machine's own screen;
// empty when nobody's is, as while the login screen is there.
std::string ActiveSessionUser();

// Whether one of the sessions is graphical.
bool HasGraphicalSession();

// What it takes all sessions together for. Asks the login manager over the
// system bus, at its fixed address; gives up after two seconds.
struct IdleHint {
  bool idle = false;
  int64_t since_us = 0;  // On the monotonic clock; when it last changed.
};
std::optional<IdleHint> ReadIdleHint();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_LOGIN_MANAGER_H_
