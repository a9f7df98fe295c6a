// Who there is: threads, users and groups by their identifiers.

#include "ZuHelper.h"
#include "platform/thread_id.h"
#include "support/accounts.h"
#include "support/guarded.h"

uint32_t GetCurrentThreadId(void) {
  return static_cast<uint32_t>(zu::platform::CurrentThreadId());
}

uint32_t GetUserUid(const char* name) {
  // Broken databases can have an entry without a name.
  if (*name == '\0') return 0;
  return zu::Guarded(__func__, 0u, [name] {
    const auto user = zu::FindUser(name);
    return user ? uint32_t{user->id} : 0;
  });
}

uint32_t GetGroupGid(const char* name) {
  if (*name == '\0') return 0;
  return zu::Guarded(__func__, 0u, [name] {
    return uint32_t{zu::FindGroup(name).value_or(0)};
  });
}
