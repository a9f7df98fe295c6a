#include "support/accounts.h"

#include <grp.h>
#include <pwd.h>
#include <cerrno>
#include <memory>

namespace zu {
namespace {

// What `convert` makes of the entry that one of the reentrant look-ups finds.
// Entries have no largest size: a group's may have thousands of members.
template <typename Key, typename Entry, typename Convert>
auto Find(int (*look_up)(Key, Entry*, char*, size_t, Entry**), Key key,
          Convert convert)
    -> std::optional<decltype(convert(std::declval<const Entry&>()))> {
  for (size_t size = 1024;; size *= 2) {
    const auto buffer = std::make_unique_for_overwrite<char[]>(size);
    Entry entry;
    Entry* found = nullptr;
    const int error = look_up(key, &entry, buffer.get(), size, &found);
    if (error == 0 && found != nullptr) return convert(entry);
    if (error != ERANGE && error != EINTR) return std::nullopt;
  }
}

User ToUser(const passwd& entry) {
  return {entry.pw_name, entry.pw_uid, entry.pw_gid};
}

}  // namespace

std::optional<User> FindUser(uid_t user) {
  return Find(&::getpwuid_r, user, ToUser);
}

std::optional<User> FindUser(const char* name) {
  return Find(&::getpwnam_r, name, ToUser);
}

std::optional<gid_t> FindGroup(const char* name) {
  return Find(&::getgrnam_r, name,
              [](const group& entry) { return entry.gr_gid; });
}

bool GroupLists(const char* group_name, std::string_view user) {
  return Find(&::getgrnam_r, group_name,
              [user](const group& entry) {
                char** member = entry.gr_mem;
                while (*member != nullptr && *member != user) ++member;
                return *member != nullptr;
              })
      .value_or(false);
}

}  // namespace zu
