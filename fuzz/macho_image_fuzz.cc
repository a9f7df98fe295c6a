// A Mach-O file's headers. The input is all of a file; what it holds of a
// universal header and of a slice's load commands is read.

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "platform/linux/signing/macho/macho_image.h"

namespace zu::platform {
namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

bool Within(const FileRange& range, uint64_t size) {
  return range.offset <= size && range.size <= size - range.offset;
}

void ParseSlice(std::span<const std::byte> image, MachOSlice slice) {
  const auto end = LoadCommandsEnd(
      image.first(std::min<size_t>(image.size(), 32)), image.size());
  if (!end) return;
  Require(*end <= image.size());
  if (!ParseLoadCommands(image.first(static_cast<size_t>(*end)), slice)) return;
  for (const auto& range : {slice.signature, slice.info_dictionary}) {
    Require(!range || Within(*range, image.size()));
  }
}

void Parse(std::span<const std::byte> file) {
  MachOSlice whole;
  whole.range.size = file.size();
  ParseSlice(file, whole);
  const auto slices = ParseUniversalHeader(file, file.size());
  if (!slices) return;
  Require(!slices->empty());
  const MachOSlice& native = NativeSlice(*slices);
  Require(&native >= &slices->front() && &native <= &slices->back());
  for (const MachOSlice& slice : *slices) {
    Require(Within(slice.range, file.size()));
    ParseSlice(file.subspan(static_cast<size_t>(slice.range.offset),
                            static_cast<size_t>(slice.range.size)),
               slice);
  }
}

}  // namespace
}  // namespace zu::platform

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zu::platform::Parse(std::as_bytes(std::span(data, size)));
  return 0;
}
