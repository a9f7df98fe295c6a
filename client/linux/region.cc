#include "linux/region.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <utility>

#include "platform/linux/ipc_frame.h"

namespace zu::client {

Region::~Region() {
  if (bytes_ != nullptr) ::munmap(bytes_, platform::kRegionSize);
}

bool Region::Create() {
  FileDescriptor memory(
      ::memfd_create("zu_client", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!memory.valid() ||
      RetryOnInterrupt([&] {
        return ::ftruncate(memory.get(), platform::kRegionSize);
      }) != 0 ||
      ::fcntl(memory.get(), F_ADD_SEALS,
              F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
    return false;
  }
  void* bytes = ::mmap(nullptr, platform::kRegionSize, PROT_READ | PROT_WRITE,
                       MAP_SHARED, memory.get(), 0);
  if (bytes == MAP_FAILED) return false;
  bytes_ = static_cast<char*>(bytes);
  descriptor_ = std::move(memory);
  return true;
}

}  // namespace zu::client
