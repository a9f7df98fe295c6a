#include "platform/linux/signing/macho/macho_image.h"

#include <sys/stat.h>
#include <algorithm>
#include <array>
#include <string_view>

#include "platform/linux/signing/file_content.h"
#include "platform/linux/signing/macho/macho_layout.h"

namespace zu::platform {
namespace {

// Class files of Java begin with the same magic number; where a universal
// header counts its slices they have a version, which is larger.
constexpr uint32_t kMaxSlices = 30;
constexpr size_t kMaxUniversalHeader =
    kUniversalHeaderSize + kMaxSlices * kUniversalEntry64.size;
constexpr uint64_t kMaxLoadCommands = 16 * 1024 * 1024;

#if defined(__aarch64__)
constexpr uint32_t kNativeCpuType = kCpuTypeArm64;
constexpr int32_t kPlainSubtype = 0;
#else
constexpr uint32_t kNativeCpuType = kCpuTypeX86_64;
constexpr int32_t kPlainSubtype = 3;
#endif
// The highest byte of a subtype tells capabilities.
constexpr uint32_t kSubtypeMask = 0x00ffffff;

bool IsUniversal(std::span<const std::byte> head) {
  if (head.size() < kUniversalHeaderSize) return false;
  const uint32_t magic = LoadBig32(head, 0);
  return magic == kUniversalMagic || magic == kUniversalMagic64;
}

bool LiesWithin(const FileRange& range, uint64_t size) {
  return range.offset <= size && range.size <= size - range.offset;
}

bool Overlap(const std::vector<MachOSlice>& slices) {
  std::vector<FileRange> ranges;
  for (const MachOSlice& slice : slices) ranges.push_back(slice.range);
  std::sort(ranges.begin(), ranges.end(),
            [](const auto& a, const auto& b) { return a.offset < b.offset; });
  return std::adjacent_find(ranges.begin(), ranges.end(),
                            [](const auto& a, const auto& b) {
                              return a.offset + a.size > b.offset;
                            }) != ranges.end();
}

// A universal header's slices have their CPU type already.
MachOResult ReadSlice(int descriptor, MachOSlice& slice, bool is_universal) {
  std::array<std::byte, MachOHeader::kMaxSize> buffer;
  const std::span<std::byte> head = std::span(buffer).first(
      static_cast<size_t>(std::min<uint64_t>(slice.range.size, buffer.size())));
  if (!ReadAt(descriptor, slice.range.offset, head)) {
    return MachOResult::kUnreadable;
  }
  const std::optional<MachOHeader> header = ParseMachOHeader(head);
  if (!header) return MachOResult::kNotMachO;
  const auto cpu_type = static_cast<int32_t>(header->cpu_type);
  if (!is_universal) {
    slice.cpu_type = cpu_type;
    slice.cpu_subtype = static_cast<int32_t>(header->cpu_subtype);
  }
  const std::optional<uint64_t> end = LoadCommandsEnd(head, slice.range.size);
  if (!end || slice.cpu_type != cpu_type) return MachOResult::kMalformed;
  std::vector<std::byte> commands(static_cast<size_t>(*end));
  if (!ReadAt(descriptor, slice.range.offset, commands)) {
    return MachOResult::kUnreadable;
  }
  return ParseLoadCommands(commands, slice) ? MachOResult::kOk
                                            : MachOResult::kMalformed;
}

}  // namespace

std::optional<std::vector<MachOSlice>> ParseUniversalHeader(
    std::span<const std::byte> head, uint64_t file_size) {
  if (!IsUniversal(head)) return std::nullopt;
  const bool is_64 = LoadBig32(head, 0) == kUniversalMagic64;
  const UniversalEntryLayout& layout =
      is_64 ? kUniversalEntry64 : kUniversalEntry32;
  const uint32_t count = LoadBig32(head, 4);
  if (count == 0 || count > kMaxSlices ||
      head.size() < kUniversalHeaderSize + count * layout.size) {
    return std::nullopt;
  }
  std::vector<MachOSlice> slices(count);
  std::span<const std::byte> rest = head.subspan(kUniversalHeaderSize);
  for (MachOSlice& slice : slices) {
    slice.cpu_type = static_cast<int32_t>(LoadBig32(rest, 0));
    slice.cpu_subtype = static_cast<int32_t>(LoadBig32(rest, 4));
    const auto load = [&](size_t offset) {
      return is_64 ? LoadBig64(rest, offset) : LoadBig32(rest, offset);
    };
    slice.range = {load(kUniversalRangeOffset), load(layout.range_size)};
    slice.alignment_shift = LoadBig32(rest, layout.alignment);
    if (!LiesWithin(slice.range, file_size)) return std::nullopt;
    rest = rest.subspan(layout.size);
  }
  return slices;
}

std::optional<uint64_t> LoadCommandsEnd(std::span<const std::byte> head,
                                        uint64_t slice_size) {
  const std::optional<MachOHeader> header = ParseMachOHeader(head);
  if (!header) return std::nullopt;
  const uint64_t end = uint64_t{header->size()} + header->commands_size;
  if (end > slice_size || end > kMaxLoadCommands) return std::nullopt;
  return end;
}

bool ParseLoadCommands(std::span<const std::byte> commands, MachOSlice& slice) {
  const std::optional<MachOHeader> header = ParseMachOHeader(commands);
  if (!header || LoadCommandsEnd(commands, commands.size()) == std::nullopt) {
    return false;
  }
  // Two of a kind would let two readers see different things.
  const auto set_once = [&](std::optional<FileRange>& range, uint64_t offset,
                            uint64_t size) {
    if (range || !LiesWithin({offset, size}, slice.range.size)) return false;
    range = FileRange{offset, size};
    return true;
  };
  return VisitLoadCommands(
      *header, commands,
      [&](uint32_t type, std::span<const std::byte> command) {
        if (command.size() % 4 != 0) return false;
        if (type == kSignatureCommand) {
          return command.size() >= kSignatureCommandSize &&
                 set_once(slice.signature, header->Load32(command, 8),
                          header->Load32(command, 12));
        }
        if (type != kSegmentCommand32 && type != kSegmentCommand64) return true;
        const std::optional<Segment> segment =
            ParseSegment(type == kSegmentCommand64 ? kSegment64 : kSegment32,
                         header->order, command);
        if (!segment) return false;
        if (segment->name != "__TEXT") return true;
        return std::all_of(segment->sections.begin(), segment->sections.end(),
                           [&](const Section& section) {
                             return section.name != "__info_plist" ||
                                    set_once(slice.info_dictionary,
                                             section.offset, section.size);
                           });
      });
}

MachOResult ReadMachO(int descriptor, std::vector<MachOSlice>& slices) {
  slices.clear();
  struct stat status {};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
    return MachOResult::kUnreadable;
  }
  const auto file_size = static_cast<uint64_t>(status.st_size);
  std::array<std::byte, kMaxUniversalHeader> buffer;
  const std::span<std::byte> head = std::span(buffer).first(
      static_cast<size_t>(std::min<uint64_t>(file_size, buffer.size())));
  if (!ReadAt(descriptor, 0, head)) return MachOResult::kUnreadable;

  const bool is_universal = IsUniversal(head);
  std::vector<MachOSlice> found(1);
  found.front().range.size = file_size;
  if (is_universal) {
    auto listed = ParseUniversalHeader(head, file_size);
    if (!listed) return MachOResult::kNotMachO;
    found = std::move(*listed);
  }
  for (MachOSlice& slice : found) {
    MachOResult result = ReadSlice(descriptor, slice, is_universal);
    // The first slice tells what the file is: a universal archive holds no
    // images at all.
    if (result == MachOResult::kNotMachO && &slice != &found.front()) {
      result = MachOResult::kMalformed;
    }
    if (result != MachOResult::kOk) return result;
  }
  if (Overlap(found)) return MachOResult::kMalformed;
  slices = std::move(found);
  return MachOResult::kOk;
}

const MachOSlice& NativeSlice(std::span<const MachOSlice> slices) {
  const MachOSlice* native = nullptr;
  for (const MachOSlice& slice : slices) {
    if (static_cast<uint32_t>(slice.cpu_type) != kNativeCpuType) continue;
    if ((static_cast<uint32_t>(slice.cpu_subtype) & kSubtypeMask) ==
        kPlainSubtype) {
      return slice;
    }
    if (native == nullptr) native = &slice;
  }
  return native != nullptr ? *native : slices.front();
}

}  // namespace zu::platform
