#include "tests/support/macho_builder.h"

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "platform/linux/signing/signer/macho_signer.h"

namespace zu::test {
namespace {

constexpr uint64_t kLinkEditSize = 32;
constexpr uint64_t kRoom = 64;  // Behind the load commands.

struct Place {
  std::string_view name;
  uint64_t offset = 0;
  uint64_t size = 0;
};

// Appends fields one after the other.
class Writer {
 public:
  explicit Writer(const MachOOptions& options)
      : order_(options.order), layout_(LayoutOf(options)) {
    Put32(layout_.is_64 ? kMachOMagic64 : kMachOMagic32);
    Put32(options.cpu_type);
    Put32(options.cpu_type == kCpuTypeArm64 ? 0 : 3);
    Put32(options.dynamic_library ? kDynamicLibraryType : kExecutableType);
    // The commands, which are counted as they come, and flags.
    for (int i = 0; i < (layout_.is_64 ? 4 : 3); ++i) Put32(0);
  }

  static const SegmentLayout& LayoutOf(const MachOOptions& options) {
    return (options.cpu_type >> 24) != 0 ? kSegment64 : kSegment32;
  }

  template <typename T>
  void Put(T value) {
    bytes_.resize(bytes_.size() + sizeof(T));
    StoreInteger(std::span(bytes_), bytes_.size() - sizeof(T), value, order_);
  }
  void Put32(uint64_t value) { Put(static_cast<uint32_t>(value)); }
  void PutWord(uint64_t value) { layout_.is_64 ? Put(value) : Put32(value); }
  // With zeros behind, up to this size.
  void PutText(std::string_view text, size_t size) {
    const size_t end = bytes_.size() + size;
    for (const char c : text) Put(static_cast<uint8_t>(c));
    PadTo(end);
  }
  void PadTo(uint64_t size) { bytes_.resize(static_cast<size_t>(size)); }

  void BeginCommand(uint32_t type, uint64_t size) {
    Put32(type);
    Put32(size);
    Add(MachOHeader::kCommandCountOffset, 1);
    Add(MachOHeader::kCommandsSizeOffset, static_cast<uint32_t>(size));
  }
  void PutSegment(const Place& segment, uint64_t base, uint64_t vm_size,
                  uint32_t protection, const std::vector<Place>& sections) {
    BeginCommand(layout_.is_64 ? kSegmentCommand64 : kSegmentCommand32,
                 layout_.size + sections.size() * layout_.section_size);
    PutText(segment.name, kNameSize);
    PutWord(base + segment.offset);
    PutWord(vm_size);
    PutWord(segment.offset);
    PutWord(segment.size);
    Put32(protection);
    Put32(protection);
    Put32(sections.size());
    Put32(0);
    for (const Place& section : sections) {
      PutText(section.name, kNameSize);
      PutText(segment.name, kNameSize);
      PutWord(base + section.offset);
      PutWord(section.size);
      Put32(section.offset);
      for (int i = 0; i < (layout_.is_64 ? 7 : 6); ++i) Put32(0);
    }
  }

  size_t size() const { return bytes_.size(); }
  std::vector<std::byte> Take() { return std::move(bytes_); }

 private:
  void Add(size_t offset, uint32_t value) {
    StoreInteger(std::span(bytes_), offset,
                 value + LoadInteger<uint32_t>(bytes_, offset, order_), order_);
  }

  const ByteOrder order_;
  const SegmentLayout& layout_;
  std::vector<std::byte> bytes_;
};

// The header and load commands; they are as long wherever the code is.
Writer PutCommands(const MachOOptions& options, uint64_t code, uint64_t page,
                   uint64_t end) {
  const uint64_t base = options.dynamic_library ? 0 : page << 8;
  Writer out(options);
  std::vector<Place> sections = {{"__text", code, options.code_size}};
  if (!options.info_dictionary.empty()) {
    sections.push_back({"__info_plist", code + options.code_size,
                        options.info_dictionary.size()});
  }
  out.PutSegment({"__TEXT", 0, end}, base, end, 5, sections);
  out.PutSegment({"__LINKEDIT", end, kLinkEditSize}, base, page, 1, {});
  out.BeginCommand(0x2, 24);  // Symbols: none, and their strings.
  for (const uint64_t field : {end, uint64_t{0}, end, kLinkEditSize}) {
    out.Put32(field);
  }
  // The library itself, or one that the program uses.
  out.BeginCommand(options.dynamic_library ? 0xd : 0xc, 56);
  for (const uint32_t field : {24u, 2u, options.dylib_version, 0x10000u}) {
    out.Put32(field);
  }
  out.PutText("/usr/lib/libtest.dylib", 32);
  return out;
}

}  // namespace

std::vector<std::byte> BuildMachO(const MachOOptions& options) {
  const uint64_t page = options.cpu_type == kCpuTypeArm64 ? 0x4000 : 0x1000;
  const uint64_t code = PutCommands(options, 0, page, 0).size() + kRoom;
  const uint64_t size =
      code + options.code_size + options.info_dictionary.size();
  const uint64_t end = (size + page - 1) / page * page;
  Writer image = PutCommands(options, code, page, end);
  image.PadTo(code);
  for (size_t i = 0; i < options.code_size; ++i) {
    image.Put(static_cast<uint8_t>(i * 7 + i / 251));
  }
  image.PutText(options.info_dictionary, options.info_dictionary.size());
  image.PadTo(end + kLinkEditSize);
  return image.Take();
}

std::vector<std::byte> BuildUniversal(
    const std::vector<std::vector<std::byte>>& images, bool is_64) {
  std::vector<platform::UniversalSlice> slices;
  for (const auto& image : images) {
    const auto header = ParseMachOHeader(image);
    if (!header) throw std::runtime_error("not an image");
    slices.push_back({header->cpu_type, header->cpu_subtype,
                      header->cpu_type == kCpuTypeArm64 ? 14u : 12u, image});
  }
  return platform::EncodeUniversal(slices, is_64).value();
}

void WriteBytes(const std::filesystem::path& file,
                std::span<const std::byte> bytes) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out.flush()) throw std::runtime_error(file.string());
}

std::vector<std::byte> ReadBytes(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(in)),
                         std::istreambuf_iterator<char>());
  if (!in) throw std::runtime_error(file.string());
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

}  // namespace zu::test
