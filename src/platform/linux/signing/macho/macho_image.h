// Mach-O files, as far as their signatures go: slices, where each one's
// signature lies, and the information dictionary that a program may carry.
#ifndef ZU_PLATFORM_LINUX_SIGNING_MACHO_MACHO_IMAGE_H_
#define ZU_PLATFORM_LINUX_SIGNING_MACHO_MACHO_IMAGE_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace zu::platform {

// A part of a file. Offsets within a slice count from the slice's start.
struct FileRange {
  uint64_t offset = 0;
  uint64_t size = 0;
};

struct MachOSlice {
  int32_t cpu_type = 0;
  int32_t cpu_subtype = 0;
  FileRange range;                           // In the file.
  std::optional<FileRange> signature;        // In the slice, and inside it.
  std::optional<FileRange> info_dictionary;  // Likewise.
  uint32_t alignment_shift = 0;  // What a universal header asks for.
};

// The slices that a universal header (32-bit or 64-bit) lists; `head` is the
// start of the file, or all of a shorter one. Absent when it is not such a
// header or a slice lies outside the file or the list is not all in `head`.
// Only the header's fields are set.
std::optional<std::vector<MachOSlice>> ParseUniversalHeader(
    std::span<const std::byte> head, uint64_t file_size);

// The size of the header and load commands that a slice starts with; absent
// when `head` (its first 32 bytes) is not the start of a Mach-O image or the
// commands do not fit in `slice_size`.
std::optional<uint64_t> LoadCommandsEnd(std::span<const std::byte> head,
                                        uint64_t slice_size);

// Fills in signature and info_dictionary from a slice's header and load
// commands. False when a command breaks the format or points outside the
// slice.
[[nodiscard]] bool ParseLoadCommands(std::span<const std::byte> commands,
                                     MachOSlice& slice);

enum class MachOResult { kOk, kNotMachO, kMalformed, kUnreadable };

// The slices of an open file, one for a thin image. Reads headers and load
// commands only. The slices of a universal file do not overlap, and each has
// the CPU type that the header lists.
MachOResult ReadMachO(int descriptor, std::vector<MachOSlice>& slices);

// The slice that this host would run, else the first. There is at least one.
const MachOSlice& NativeSlice(std::span<const MachOSlice> slices);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_MACHO_MACHO_IMAGE_H_
