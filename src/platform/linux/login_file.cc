#include "platform/linux/login_file.h"

#include <fcntl.h>
#include <paths.h>
#include <cerrno>

#include "support/file_descriptor.h"

namespace zu::platform {

std::optional<std::vector<utmpx>> ReadLoginFile() {
  const FileDescriptor file(RetryOnInterrupt(
      [] { return ::open(_PATH_UTMP, O_RDONLY | O_CLOEXEC); }));
  std::vector<utmpx> records;
  if (!file.valid()) {
    if (errno == ENOENT) return std::nullopt;
    return records;
  }
  utmpx record;
  // Records are written whole and in place, so none is read in halves.
  while (RetryOnInterrupt([&] {
           return ::read(file.get(), &record, sizeof record);
         }) == sizeof record) {
    records.push_back(record);
  }
  return records;
}

}  // namespace zu::platform
