#include "platform/linux/signing/file_content.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "support/file_descriptor.h"

namespace zu::platform {

std::optional<std::vector<std::byte>> ReadRegularFile(const std::string& path,
                                                      uint64_t max_size) {
  const FileDescriptor file(RetryOnInterrupt([&] {
    return ::open(path.c_str(),
                  O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  }));
  struct stat status {};
  if (!file.valid() || ::fstat(file.get(), &status) != 0 ||
      !S_ISREG(status.st_mode) ||
      static_cast<uint64_t>(status.st_size) > max_size) {
    return std::nullopt;
  }
  std::vector<std::byte> bytes(static_cast<size_t>(status.st_size));
  if (!ReadAt(file.get(), 0, bytes)) return std::nullopt;
  return bytes;
}

std::optional<std::vector<std::byte>> DigestOfContent(int descriptor,
                                                      uint64_t size,
                                                      const EVP_MD& digest) {
  const DigestContextPtr context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex2(context.get(), &digest, nullptr) != 1 ||
      !ReadInChunks(descriptor, size, [&](std::span<const std::byte> chunk) {
        return EVP_DigestUpdate(context.get(), chunk.data(), chunk.size()) == 1;
      })) {
    return std::nullopt;
  }
  std::vector<std::byte> value(static_cast<size_t>(EVP_MD_get_size(&digest)));
  if (EVP_DigestFinal_ex(context.get(),
                         reinterpret_cast<unsigned char*>(value.data()),
                         nullptr) != 1) {
    return std::nullopt;
  }
  return value;
}

}  // namespace zu::platform
