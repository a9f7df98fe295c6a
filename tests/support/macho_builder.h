// Small Mach-O files, made from nothing and unsigned.
#ifndef ZU_TESTS_SUPPORT_MACHO_BUILDER_H_
#define ZU_TESTS_SUPPORT_MACHO_BUILDER_H_

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "support/macho.h"

namespace zu::test {

struct MachOOptions {
  uint32_t cpu_type = kCpuTypeX86_64;
  ByteOrder order = ByteOrder::kLittle;
  bool dynamic_library = false;      // Else a program.
  uint32_t dylib_version = 0x10000;  // Of that; it is compatible with 1.0.
  std::string info_dictionary = {};  // In __TEXT,__info_plist, if there is one.
  size_t code_size = 2000;
};

// An image with segments, a string table and the commands that the system's
// loader asks for. Its machine code is a pattern.
std::vector<std::byte> BuildMachO(const MachOOptions& options = {});

// A universal file of such images.
std::vector<std::byte> BuildUniversal(
    const std::vector<std::vector<std::byte>>& images, bool is_64 = false);

// Throws std::runtime_error on failure.
void WriteBytes(const std::filesystem::path& file,
                std::span<const std::byte> bytes);
std::vector<std::byte> ReadBytes(const std::filesystem::path& file);

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_MACHO_BUILDER_H_
