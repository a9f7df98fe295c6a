// The memory that a connection shares with its server for long bodies.
#ifndef ZU_CLIENT_LINUX_REGION_H_
#define ZU_CLIENT_LINUX_REGION_H_

#include "support/file_descriptor.h"

namespace zu::client {

class Region {
 public:
  Region() = default;
  ~Region();
  Region(const Region&) = delete;
  Region& operator=(const Region&) = delete;

  // Makes the memory, kRegionSize bytes that can neither shrink (the server
  // would get SIGBUS) nor grow. False when the system refuses.
  [[nodiscard]] bool Create();

  [[nodiscard]] char* bytes() const { return bytes_; }  // Null before Create.
  // To be passed to the server; -1 once that is done.
  [[nodiscard]] int descriptor() const { return descriptor_.get(); }
  void CloseDescriptor() { descriptor_.reset(); }

 private:
  FileDescriptor descriptor_;
  char* bytes_ = nullptr;
};

}  // namespace zu::client

#endif  // ZU_CLIENT_LINUX_REGION_H_
