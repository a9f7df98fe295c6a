// Mach-O and signature blobs byte by byte: what reading and signing share.
//
// Everything here is pure. Structures come back as values in the host's byte
// order; what they were read from was checked to be long enough.
#ifndef ZU_PLATFORM_LINUX_SIGNING_MACHO_MACHO_LAYOUT_H_
#define ZU_PLATFORM_LINUX_SIGNING_MACHO_MACHO_LAYOUT_H_

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace zu::platform {

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
inline constexpr uint32_t kSignatureCommand = 0x1d;
inline constexpr size_t kLoadCommandSize = 8;  // The part that all have.
inline constexpr size_t kSignatureCommandSize = 16;

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
    if (size < kLoadCommandSize || size % 4 != 0 || size > rest.size() ||
        !visit(header.Load32(rest, 0), rest.first(size))) {
      return false;
    }
    rest = rest.subspan(size);
  }
  return true;
}

// Signature blobs: a magic number, the whole blob's size, then its content.
inline constexpr uint32_t kEmbeddedSignatureMagic = 0xfade0cc0;
inline constexpr uint32_t kCodeDirectoryMagic = 0xfade0c02;
inline constexpr uint32_t kRequirementsMagic = 0xfade0c01;
inline constexpr uint32_t kWrapperMagic = 0xfade0b01;
inline constexpr uint32_t kEntitlementsMagic = 0xfade7171;
inline constexpr uint32_t kDerEntitlementsMagic = 0xfade7172;
inline constexpr size_t kBlobHeaderSize = 8;

// The slots of an embedded signature that are no directory's special slots.
inline constexpr uint32_t kDirectorySlot = 0;
inline constexpr uint32_t kFirstAlternateSlot = 0x1000;
inline constexpr uint32_t kLastAlternateSlot = 0x1004;
inline constexpr uint32_t kCmsSlot = 0x10000;

// A code directory's fields, and how long it is at least from which version
// on.
namespace directory_field {
inline constexpr size_t kVersion = 8;
inline constexpr size_t kFlags = 12;
inline constexpr size_t kHashOffset = 16;
inline constexpr size_t kIdentifierOffset = 20;
inline constexpr size_t kSpecialSlots = 24;
inline constexpr size_t kCodeSlots = 28;
inline constexpr size_t kCodeLimit = 32;
inline constexpr size_t kHashSize = 36;
inline constexpr size_t kHashType = 37;
inline constexpr size_t kPageShift = 39;
inline constexpr size_t kScatterOffset = 44;
inline constexpr size_t kTeamOffset = 48;
inline constexpr size_t kCodeLimit64 = 56;
inline constexpr size_t kExecutableSegment = 64;  // Base, limit, flags.
}  // namespace directory_field

inline constexpr uint32_t kEarliestDirectory = 0x20001;
inline constexpr uint32_t kDirectoryWithScatter = 0x20100;
inline constexpr uint32_t kDirectoryWithTeam = 0x20200;
inline constexpr uint32_t kDirectoryWithCodeLimit64 = 0x20300;
inline constexpr uint32_t kDirectoryWithExecutableSegment = 0x20400;

// The size of the fixed part in a directory of this version.
size_t DirectoryHeaderSize(uint32_t version);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_MACHO_MACHO_LAYOUT_H_
