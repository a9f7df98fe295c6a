// Reading whole files that others may change or shorten meanwhile.
#ifndef ZU_PLATFORM_LINUX_SIGNING_FILE_CONTENT_H_
#define ZU_PLATFORM_LINUX_SIGNING_FILE_CONTENT_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/signing/openssl_ptr.h"
#include "support/read_at.h"

namespace zu::platform {

// All of a regular file; absent when it is none (a symbolic link, say), is
// larger than `max_size` or cannot be read.
std::optional<std::vector<std::byte>> ReadRegularFile(const std::string& path,
                                                      uint64_t max_size);

// Hands the file's first `size` bytes to `consume(span)` chunk by chunk. False
// when they cannot be read (errno as ReadAt has it), or `consume` returned
// false.
template <typename Consume>
[[nodiscard]] bool ReadInChunks(int descriptor, uint64_t size, Consume consume);

// The digest of the file's first `size` bytes. Absent when they cannot be
// read.
std::optional<std::vector<std::byte>> DigestOfContent(int descriptor,
                                                      uint64_t size,
                                                      const EVP_MD& digest);

// Just below the size from which malloc maps, and then faults in, every
// buffer anew.
inline constexpr size_t kReadChunkSize = 64 * 1024;

template <typename Consume>
bool ReadInChunks(int descriptor, uint64_t size, Consume consume) {
  const auto buffer = std::make_unique_for_overwrite<std::byte[]>(
      static_cast<size_t>(std::min<uint64_t>(size, kReadChunkSize)));
  for (uint64_t offset = 0; offset < size;) {
    const std::span<std::byte> chunk(
        buffer.get(),
        static_cast<size_t>(std::min<uint64_t>(size - offset, kReadChunkSize)));
    if (!ReadAt(descriptor, offset, chunk) || !consume(chunk)) return false;
    offset += chunk.size();
  }
  return true;
}

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_FILE_CONTENT_H_
