// Writing the parts of a signature inside a Mach-O slice. Not part of the
// product.
#ifndef ZU_PLATFORM_LINUX_SIGNING_SIGNER_CODE_DIRECTORY_WRITER_H_
#define ZU_PLATFORM_LINUX_SIGNING_SIGNER_CODE_DIRECTORY_WRITER_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/signing/macho/code_directory.h"
#include "platform/linux/signing/macho/macho_image.h"
#include "platform/linux/signing/macho/macho_layout.h"

namespace zu::platform {

struct DirectoryContent {
  CodeHash hash = CodeHash::kSha256;
  // Fields that this version does not have are not written.
  uint32_t version = kDirectoryWithExecutableSegment;
  uint32_t flags = 0;
  std::string identifier = {};
  std::optional<std::string> team = std::nullopt;
  uint8_t page_shift = 12;  // 0: the code is one page.
  // Where __TEXT lies, and 1 for a program.
  FileRange executable_segment = {};
  uint64_t executable_segment_flags = 0;
  // What is sealed beside the code, by special slot.
  std::map<uint32_t, std::vector<std::byte>> sealed = {};
};

// How large the directory over so much code will be.
size_t CodeDirectorySize(const DirectoryContent& content, uint64_t code_size);

// The directory over `code`; empty when libcrypto fails.
std::vector<std::byte> EncodeCodeDirectory(const CryptoContext& context,
                                           const DirectoryContent& content,
                                           std::span<const std::byte> code);

std::vector<std::byte> EncodeBlob(uint32_t magic,
                                  std::span<const std::byte> content);

// An embedded signature of these blobs.
std::vector<std::byte> EncodeSuperBlob(
    const std::map<uint32_t, std::vector<std::byte>>& blobs);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_SIGNER_CODE_DIRECTORY_WRITER_H_
