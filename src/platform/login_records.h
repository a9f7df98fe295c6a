// Who is logged in.
#ifndef ZU_PLATFORM_LOGIN_RECORDS_H_
#define ZU_PLATFORM_LOGIN_RECORDS_H_

#include <string>
#include <vector>

namespace zu::platform {

struct LoginRecord {
  std::string user;   // Empty for records of other kinds.
  bool dead = false;  // The process that was logged in has ended.
};

// All records, in the system's order. On macOS this moves the cursor of the
// login records, which the whole process shares.
std::vector<LoginRecord> ReadLoginRecords();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LOGIN_RECORDS_H_
