// Entry points of accounts and ownership.

#include <grp.h>
#include <unistd.h>
#include <algorithm>

#include "ZuHelper.h"
#include "support/accounts.h"
#include "support/guarded.h"

namespace {

// Systems differ in the sign of the identifiers that they take here, and some
// give the number of groups instead of 0.
template <typename Id>
int32_t ListGroups(int (*list)(const char*, Id, Id*, int*),
                   const zu::User& user, uint32_t* groups, int32_t* count) {
  return list(user.name.c_str(), static_cast<Id>(user.group),
              reinterpret_cast<Id*>(groups), count) < 0
             ? -1
             : 0;
}

}  // namespace

uint32_t ZuGetCurrentThreadId(void) { return GetCurrentThreadId(); }

uint32_t ZuGetUserUid(const char* name) { return GetUserUid(name); }

uint32_t ZuGetGroupGid(const char* name) { return GetGroupGid(name); }

int32_t ZuGetGroupsForUser(uint32_t uid, uint32_t* groups, int32_t* count) {
  return zu::Guarded(__func__, -1, [=] {
    const auto user = zu::FindUser(uid);
    // The system takes a negative capacity for a large one.
    *count = user ? std::max(*count, 0) : 0;
    return user ? ListGroups(::getgrouplist, *user, groups, count) : 0;
  });
}

uint8_t ZuChangeFileOwnerToCurrentUser(const char* path) {
  return ChangeFileOwnerToCurrentUser(path);
}

uint8_t ZuChangeFileOwnerGroup(const char* path, const char* user,
                               const char* group) {
  return ChangeFileOwnerGroup(path, user, group);
}

uint8_t ZuChangeFilePermissions(const char* path, const char* mode,
                                int32_t recursive) {
  return ChangeFilePermissions(path, mode, recursive);
}
