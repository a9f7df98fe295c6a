// The file that says who is logged in (utmp), where the system keeps one.
#ifndef ZU_PLATFORM_LINUX_LOGIN_FILE_H_
#define ZU_PLATFORM_LINUX_LOGIN_FILE_H_

#include <utmpx.h>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

namespace zu::platform {

// All its records, in their order. Absent when there is no such file;
// none when it cannot be read. Does not touch the cursor of getutxent, which is
// the host's.
std::optional<std::vector<utmpx>> ReadLoginFile();

// The text in a record's field, which ends with a NUL only where it is shorter
// than the field.
template <size_t size>
std::string_view FieldText(const char (&field)[size]) {
  return {field, ::strnlen(field, size)};
}

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_LOGIN_FILE_H_
