// Keeps what the system's tools complain about out of a table.
#ifndef ZU_TOOLS_ZUCTL_QUIET_ERRORS_H_
#define ZU_TOOLS_ZUCTL_QUIET_ERRORS_H_

#include <fcntl.h>
#include <unistd.h>

#include "support/file_descriptor.h"

namespace zu::ctl {

// While it lives, standard error goes nowhere, in tools that the library runs,
// too: they have it from this process.
class QuietErrors {
 public:
  QuietErrors() : kept_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
    const FileDescriptor nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (kept_.valid() && nowhere.valid()) {
      ::dup2(nowhere.get(), STDERR_FILENO);
    }
  }
  ~QuietErrors() {
    if (kept_.valid()) ::dup2(kept_.get(), STDERR_FILENO);
  }
  QuietErrors(const QuietErrors&) = delete;
  QuietErrors& operator=(const QuietErrors&) = delete;

 private:
  const FileDescriptor kept_;
};

}  // namespace zu::ctl

#endif  // ZU_TOOLS_ZUCTL_QUIET_ERRORS_H_
