// Pipes whose ends no child inherits.
#ifndef ZU_PLATFORM_PIPE_H_
#define ZU_PLATFORM_PIPE_H_

#include "support/file_descriptor.h"

namespace zu::platform {

struct Pipe {
  FileDescriptor read_end;
  FileDescriptor write_end;
};

// A close-on-exec pipe; both ends are invalid, with errno set, on failure. On
// macOS the flag is set after the pipe is made, so that a process that another
// thread starts at that very moment can inherit the ends; on Linux never.
Pipe MakePipe();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_PIPE_H_
