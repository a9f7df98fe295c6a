// A flag that a thread can wait for beside its descriptors.
#ifndef ZU_PLATFORM_LINUX_EVENT_H_
#define ZU_PLATFORM_LINUX_EVENT_H_

#include <sys/eventfd.h>
#include <unistd.h>
#include <cstdint>

#include "support/file_descriptor.h"

namespace zu::platform {

class Event {
 public:
  Event() : descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  bool valid() const { return descriptor_.valid(); }
  int get() const { return descriptor_.get(); }

  void Set() const {
    const uint64_t one = 1;
    (void)RetryOnInterrupt(
        [&] { return ::write(descriptor_.get(), &one, sizeof(one)); });
  }
  void Clear() const {
    uint64_t count = 0;
    (void)RetryOnInterrupt(
        [&] { return ::read(descriptor_.get(), &count, sizeof(count)); });
  }

 private:
  FileDescriptor descriptor_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_EVENT_H_
