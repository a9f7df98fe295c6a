#include "platform/pipe.h"

#include <fcntl.h>
#include <unistd.h>

namespace zu::platform {

Pipe MakePipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return {};
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

}  // namespace zu::platform
