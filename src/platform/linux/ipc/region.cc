#include "platform/linux/ipc/region.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include "platform/linux/ipc_frame.h"

namespace zu::platform {

std::shared_ptr<Region> Region::Map(FileDescriptor memory) {
  constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
  const int seals = ::fcntl(memory.get(), F_GET_SEALS);
  if (seals == -1 || (seals & kSeals) != kSeals) return nullptr;
  // Huge pages have seals too, but can run out under a fault.
  struct statfs file_system {};
  if (::fstatfs(memory.get(), &file_system) != 0 ||
      file_system.f_type != TMPFS_MAGIC) {
    return nullptr;
  }
  struct stat status {};
  if (::fstat(memory.get(), &status) != 0 ||
      status.st_size != static_cast<off_t>(kRegionSize)) {
    return nullptr;
  }
  void* data = ::mmap(nullptr, kRegionSize, PROT_READ | PROT_WRITE, MAP_SHARED,
                      memory.get(), 0);
  if (data == MAP_FAILED) return nullptr;
  return std::shared_ptr<Region>(new Region(static_cast<char*>(data)));
}

Region::~Region() { ::munmap(data_, kRegionSize); }

}  // namespace zu::platform
