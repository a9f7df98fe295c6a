// The memory that a client shares with the server for large bodies.
#ifndef ZU_PLATFORM_LINUX_IPC_REGION_H_
#define ZU_PLATFORM_LINUX_IPC_REGION_H_

#include <memory>

#include "support/file_descriptor.h"

namespace zu::platform {

// A mapped region of kRegionSize bytes. Its other owner can change them at any
// time, so they are copied before anything looks at them.
class Region {
 public:
  // Null unless `memory` is what a client may hand over: plain shared memory
  // of exactly the right size that can neither shrink (which would make a read
  // fault) nor change its seals any more.
  static std::shared_ptr<Region> Map(FileDescriptor memory);
  ~Region();
  Region(const Region&) = delete;
  Region& operator=(const Region&) = delete;

  char* data() const { return data_; }

 private:
  explicit Region(char* data) : data_(data) {}
  char* data_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_IPC_REGION_H_
