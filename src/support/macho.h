// Mach-O files byte by byte: headers, load commands, segments.
//
// Everything here is pure. Structures come back as values in the host's byte
// order; what they were read from was checked to be long enough.
#ifndef ZU_SUPPORT_MACHO_H_
#define ZU_SUPPORT_MACHO_H_

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace zu {

enum class ByteOrder { kLittle, kBig };

// The caller has checked that the integer lies inside.
template <std::unsigned_integral T>
T LoadInteger(std::span<const std::byte> bytes, size_t offset,
              ByteOrder order) {
  T value = 0;
  for (size_t i = 0; i < sizeof(T); ++i) {
    const size_t place = order == ByteOrder::kBig ? i : sizeof(T) - 1 - i;
    value =
        static_cast<T>(value << 8 | std::to_integer<T>(bytes[offset + place]));
  }
  return value;
}

template <std::unsigned_integral T>
void StoreInteger(std::span<std::byte> bytes, size_t offset, T value,
                  ByteOrder order) {
  for (size_t i = 0; i < sizeof(T); ++i) {
    const size_t place = order == ByteOrder::kBig ? sizeof(T) - 1 - i : i;
    bytes[offset + place] = static_cast<std::byte>(value >> (8 * i));
  }
}

// Universal headers and signature blobs are big-endian on every machine.
inline uint32_t LoadBig32(std::span<const std::byte> bytes, size_t offset) {
  return LoadInteger<uint32_t>(bytes, offset, ByteOrder::kBig);
}
inline uint64_t LoadBig64(std::span<const std::byte> bytes, size_t offset) {
  return LoadInteger<uint64_t>(bytes, offset, ByteOrder::kBig);
}

inline constexpr uint32_t kUniversalMagic = 0xcafebabe;
inline constexpr uint32_t kUniversalMagic64 = 0xcafebabf;
inline constexpr size_t kUniversalHeaderSize = 8;

// One entry of a universal header's list.
struct UniversalEntryLayout {
  size_t size;
  size_t range_size;
  size_t alignment;
};
inline constexpr UniversalEntryLayout kUniversalEntry32 = {20, 12, 16};
inline constexpr UniversalEntryLayout kUniversalEntry64 = {32, 16, 24};
inline constexpr size_t kUniversalRangeOffset = 8;  // In either.

inline constexpr uint32_t kMachOMagic32 = 0xfeedface;
inline constexpr uint32_t kMachOMagic64 = 0xfeedfacf;
inline constexpr uint32_t kCpuTypeX86 = 7;
inline constexpr uint32_t kCpuTypeX86_64 = 0x01000007;
inline constexpr uint32_t kCpuTypeArm64 = 0x0100000c;
inline constexpr uint32_t kExecutableType = 2;
inline constexpr uint32_t kDynamicLibraryType = 6;

inline constexpr uint32_t kSegmentCommand32 = 0x1;
inline constexpr uint32_t kSegmentCommand64 = 0x19;
inline constexpr size_t kLoadCommandSize = 8;  // The part that all have.

// How a slice begins.
struct MachOHeader {
  ByteOrder order = ByteOrder::kLittle;
  bool is_64 = false;
  uint32_t cpu_type = 0;
  uint32_t cpu_subtype = 0;
  uint32_t file_type = 0;
  uint32_t command_count = 0;
  uint32_t commands_size = 0;

  static constexpr size_t kMaxSize = 32;
  static constexpr size_t kCommandCountOffset = 16;
  static constexpr size_t kCommandsSizeOffset = 20;

  size_t size() const { return is_64 ? kMaxSize : 28; }
  uint32_t Load32(std::span<const std::byte> bytes, size_t offset) const {
    return LoadInteger<uint32_t>(bytes, offset, order);
  }
};

// Absent when `head` is too short or has another magic number.
std::optional<MachOHeader> ParseMachOHeader(std::span<const std::byte> head);

// Where a segment command keeps its fields, which follow its name.
struct SegmentLayout {
  bool is_64;
  size_t vm_size;
  size_t file_offset;
  size_t file_size;
  size_t section_count;
  size_t size;  // Without the sections, which follow.
  size_t section_data_size;
  size_t section_data_offset;
  size_t section_size;
};
inline constexpr SegmentLayout kSegment32 = {false, 28, 32, 36, 48,
                                             56,    36, 40, 68};
inline constexpr SegmentLayout kSegment64 = {true, 32, 40, 48, 64,
                                             72,   40, 48, 80};
inline constexpr size_t kSegmentNameOffset = 8;
inline constexpr size_t kNameSize = 16;

struct Section {
  std::string_view name;
  uint64_t size = 0;
  uint32_t offset = 0;  // In the slice; 0 when the file has nothing of it.
};

struct Segment {
  std::string_view name;
  uint64_t vm_size = 0;
  uint64_t file_offset = 0;
  uint64_t file_size = 0;
  std::vector<Section> sections;
};

// `command` is a whole kSegmentCommand32 or kSegmentCommand64; the names point
// into it. Absent when it is too short for itself or its sections.
std::optional<Segment> ParseSegment(const SegmentLayout& layout,
                                    ByteOrder order,
                                    std::span<const std::byte> command);

// Calls visit(type, command) for each load command. `image` begins with the
// header and holds all commands. False when a command breaks the format, or
// `visit` returned false.
template <typename Visit>
[[nodiscard]] bool VisitLoadCommands(const MachOHeader& header,
                                     std::span<const std::byte> image,
                                     Visit visit) {
  std::span<const std::byte> rest =
      image.subspan(header.size(), header.commands_size);
  for (uint32_t i = 0; i < header.command_count; ++i) {
    if (rest.size() < kLoadCommandSize) return false;
    const uint32_t size = header.Load32(rest, 4);
    if (size < kLoadCommandSize || size > rest.size() ||
        !visit(header.Load32(rest, 0), rest.first(size))) {
      return false;
    }
    rest = rest.subspan(size);
  }
  return true;
}

}  // namespace zu

#endif  // ZU_SUPPORT_MACHO_H_
