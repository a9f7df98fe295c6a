// Owned file descriptors and the calls on them that signals interrupt.
#ifndef ZU_SUPPORT_FILE_DESCRIPTOR_H_
#define ZU_SUPPORT_FILE_DESCRIPTOR_H_

#include <unistd.h>
#include <cerrno>

#include "support/scoped_handle.h"

namespace zu {

struct FileDescriptorTraits {
  using Value = int;
  static constexpr Value kNone = -1;
  static void Close(Value descriptor) noexcept {
    const int saved = errno;
    ::close(descriptor);
    errno = saved;
  }
};
using FileDescriptor = ScopedHandle<FileDescriptorTraits>;

// Repeats a call that returns -1 while a signal interrupts it.
template <typename Call>
auto RetryOnInterrupt(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

}  // namespace zu

#endif  // ZU_SUPPORT_FILE_DESCRIPTOR_H_
