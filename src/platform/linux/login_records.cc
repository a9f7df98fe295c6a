#include "platform/login_records.h"

#include <utility>

#include "platform/linux/login_file.h"
#include "platform/linux/login_manager.h"

namespace zu::platform {

std::vector<LoginRecord> ReadLoginRecords() {
  std::vector<LoginRecord> records;
  if (const auto file = ReadLoginFile()) {
    for (const utmpx& record : *file) {
      records.push_back({.user = std::string(FieldText(record.ut_user)),
                         .dead = record.ut_type == DEAD_PROCESS});
    }
    return records;
  }
  // Distributions do away with the file, whose times end in 2038.
  for (std::string& user : SessionUsers()) {
    records.push_back({.user = std::move(user)});
  }
  return records;
}

}  // namespace zu::platform
