#include "platform/linux/signing/macho/macho_layout.h"

#include <algorithm>

namespace zu::platform {

size_t DirectoryHeaderSize(uint32_t version) {
  static constexpr struct {
    uint32_t version;
    size_t size;
  } kSizes[] = {
      {0x20600, 108},  // Linkage.
      {0x20500, 96},   // Runtime.
      {kDirectoryWithExecutableSegment, 88},
      {kDirectoryWithCodeLimit64, 64},
      {kDirectoryWithTeam, 52},
      {kDirectoryWithScatter, 48},
      {0, 44},
  };
  return std::find_if(std::begin(kSizes), std::end(kSizes),
                      [&](const auto& row) { return version >= row.version; })
      ->size;
}

}  // namespace zu::platform
