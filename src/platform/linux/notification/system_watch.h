// What the kernel tells about the network and about power.
#ifndef ZU_PLATFORM_LINUX_NOTIFICATION_SYSTEM_WATCH_H_
#define ZU_PLATFORM_LINUX_NOTIFICATION_SYSTEM_WATCH_H_

#include "support/file_descriptor.h"

namespace zu::platform {

// Changes of links, IPv4 and IPv6 addresses and routes, in the network
// namespace of whoever opens it. Not thread-safe, nor is the other one.
class NetworkWatch {
 public:
  // True, too, when it is open already.
  [[nodiscard]] bool Open();
  void Close() { netlink_.reset(); }

  int descriptor() const { return netlink_.get(); }  // -1 while closed.
  // Whether anything has changed since the last look.
  bool Read();

 private:
  FileDescriptor netlink_;
};

// Events of power supplies and, because there are adapters without any, a slow
// look whether the power is still of the same kind.
class PowerWatch {
 public:
  [[nodiscard]] bool Open();
  void Close();

  int events() const { return netlink_.get(); }
  int timer() const { return timer_.get(); }
  bool Read();

 private:
  FileDescriptor netlink_;
  FileDescriptor timer_;
  bool unlimited_ = false;  // At the last look.
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_NOTIFICATION_SYSTEM_WATCH_H_
