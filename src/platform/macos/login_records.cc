#include "platform/login_records.h"

#include <utmpx.h>
#include <cstring>

namespace zu::platform {

// The records stay open, at their end.
std::vector<LoginRecord> ReadLoginRecords() {
  std::vector<LoginRecord> records;
  ::setutxent();
  while (const utmpx* const record = ::getutxent()) {
    const char* const user = record->ut_user;
    records.push_back(
        {.user = std::string(user, ::strnlen(user, sizeof record->ut_user)),
         .dead = record->ut_type == DEAD_PROCESS});
  }
  return records;
}

}  // namespace zu::platform
