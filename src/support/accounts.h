// The system's databases of users and groups.
#ifndef ZU_SUPPORT_ACCOUNTS_H_
#define ZU_SUPPORT_ACCOUNTS_H_

#include <sys/types.h>
#include <optional>
#include <string>
#include <string_view>

namespace zu {

struct User {
  std::string name;
  uid_t id;
  gid_t group;  // The primary one.
};

// Absent when there is none, and when the databases cannot be read. They may
// lie on the network, which is waited for. Thread-safe.
[[nodiscard]] std::optional<User> FindUser(uid_t user);
[[nodiscard]] std::optional<User> FindUser(const char* name);
[[nodiscard]] std::optional<gid_t> FindGroup(const char* name);

// Whether the group's own list names the user, byte for byte. The primary group
// of a user is not asked about.
[[nodiscard]] bool GroupLists(const char* group, std::string_view user);

}  // namespace zu

#endif  // ZU_SUPPORT_ACCOUNTS_H_
