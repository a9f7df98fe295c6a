#include "support/macho.h"

namespace zu {
namespace {

// A name fills its place or ends with the first NUL.
std::string_view LoadName(std::span<const std::byte> bytes, size_t offset) {
  const std::string_view name(
      reinterpret_cast<const char*>(bytes.subspan(offset, kNameSize).data()),
      kNameSize);
  return name.substr(0, name.find('\0'));
}

uint64_t LoadWord(const SegmentLayout& layout, ByteOrder order,
                  std::span<const std::byte> bytes, size_t offset) {
  return layout.is_64 ? LoadInteger<uint64_t>(bytes, offset, order)
                      : LoadInteger<uint32_t>(bytes, offset, order);
}

}  // namespace

std::optional<MachOHeader> ParseMachOHeader(std::span<const std::byte> head) {
  MachOHeader header;
  if (head.size() < sizeof(uint32_t)) return std::nullopt;
  for (const ByteOrder order : {ByteOrder::kLittle, ByteOrder::kBig}) {
    header.order = order;
    const uint32_t magic = header.Load32(head, 0);
    if (magic != kMachOMagic32 && magic != kMachOMagic64) continue;
    header.is_64 = magic == kMachOMagic64;
    if (head.size() < header.size()) return std::nullopt;
    header.cpu_type = header.Load32(head, 4);
    header.cpu_subtype = header.Load32(head, 8);
    header.file_type = header.Load32(head, 12);
    header.command_count =
        header.Load32(head, MachOHeader::kCommandCountOffset);
    header.commands_size =
        header.Load32(head, MachOHeader::kCommandsSizeOffset);
    return header;
  }
  return std::nullopt;
}

std::optional<Segment> ParseSegment(const SegmentLayout& layout,
                                    ByteOrder order,
                                    std::span<const std::byte> command) {
  if (command.size() < layout.size) return std::nullopt;
  Segment segment{LoadName(command, kSegmentNameOffset),
                  LoadWord(layout, order, command, layout.vm_size),
                  LoadWord(layout, order, command, layout.file_offset),
                  LoadWord(layout, order, command, layout.file_size),
                  {}};
  const auto count =
      LoadInteger<uint32_t>(command, layout.section_count, order);
  std::span<const std::byte> rest = command.subspan(layout.size);
  if (count > rest.size() / layout.section_size) return std::nullopt;
  segment.sections.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    segment.sections.push_back(
        {LoadName(rest, 0),
         LoadWord(layout, order, rest, layout.section_data_size),
         LoadInteger<uint32_t>(rest, layout.section_data_offset, order)});
    rest = rest.subspan(layout.section_size);
  }
  return segment;
}

}  // namespace zu
