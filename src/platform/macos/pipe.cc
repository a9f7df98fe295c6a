#include "platform/pipe.h"

#include <fcntl.h>
#include <unistd.h>

namespace zu::platform {

Pipe MakePipe() {
  int ends[2];
  if (::pipe(ends) != 0) return {};
  Pipe pipe{FileDescriptor(ends[0]), FileDescriptor(ends[1])};
  for (const int end : ends) {
    if (::fcntl(end, F_SETFD, FD_CLOEXEC) != 0) return {};
  }
  return pipe;
}

}  // namespace zu::platform
