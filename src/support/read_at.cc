#include "support/read_at.h"

#include <unistd.h>
#include <cerrno>
#include <limits>

#include "support/file_descriptor.h"

namespace zu {

bool ReadAt(int descriptor, uint64_t offset, std::span<std::byte> destination) {
  if (offset > static_cast<uint64_t>(std::numeric_limits<off_t>::max()) -
                   destination.size()) {
    errno = EOVERFLOW;
    return false;
  }
  while (!destination.empty()) {
    const ssize_t count = RetryOnInterrupt([&] {
      return ::pread(descriptor, destination.data(), destination.size(),
                     static_cast<off_t>(offset));
    });
    if (count <= 0) {
      if (count == 0) errno = 0;
      return false;
    }
    destination = destination.subspan(static_cast<size_t>(count));
    offset += static_cast<uint64_t>(count);
  }
  return true;
}

}  // namespace zu
