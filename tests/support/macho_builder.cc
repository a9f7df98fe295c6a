#include "tests/support/macho_builder.h"

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "platform/linux/signing/signer/macho_signer.h"

namespace zu::test {
namespace {

uint64_t RoundUp(uint64_t value, uint64_t alignment) {
  return (value + alignment - 1) / alignment * alignment;
}

// Appends fields one after the other.
class Writer {
 public:
  Writer(ByteOrder order, bool is_64) : order_(order), is_64_(is_64) {}

  void Put32(uint64_t value) { Put(static_cast<uint32_t>(value)); }
  void Put64(uint64_t value) { Put(value); }
  void PutWord(uint64_t value) { is_64_ ? Put64(value) : Put32(value); }
  void PutName(std::string_view name) {
    PutText(name);
    bytes_.resize(bytes_.size() + kNameSize - name.size());
  }
  void PutText(std::string_view text) {
    const auto bytes = std::as_bytes(std::span(text));
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  }
  // Zeros up to there.
  void PadTo(uint64_t size) { bytes_.resize(static_cast<size_t>(size)); }

  // A command's size and the header's counts are set when it is complete.
  template <typename Body>
  void PutCommand(uint32_t type, Body body) {
    const size_t start = bytes_.size();
    Put32(type);
    Put32(0);
    body();
    PadTo(RoundUp(bytes_.size(), 8));
    Store32(start + 4, bytes_.size() - start);
    Add(MachOHeader::kCommandCountOffset, 1);
    Add(MachOHeader::kCommandsSizeOffset, bytes_.size() - start);
  }

  size_t size() const { return bytes_.size(); }
  std::vector<std::byte> Take() { return std::move(bytes_); }

 private:
  template <typename T>
  void Put(T value) {
    bytes_.resize(bytes_.size() + sizeof(T));
    StoreInteger(std::span(bytes_), bytes_.size() - sizeof(T), value, order_);
  }
  void Store32(size_t offset, size_t value) {
    StoreInteger(std::span(bytes_), offset, static_cast<uint32_t>(value),
                 order_);
  }
  void Add(size_t offset, size_t value) {
    Store32(offset, value + LoadInteger<uint32_t>(bytes_, offset, order_));
  }

  ByteOrder order_;
  bool is_64_;
  std::vector<std::byte> bytes_;
};

// What the commands say about the rest of the image.
struct Places {
  uint64_t base = 0;
  uint64_t code = 0;
  uint64_t info_dictionary = 0;
  uint64_t text_size = 0;
  uint64_t page_size = 0;
};

constexpr uint64_t kLinkEditSize = 32;

// The header and load commands; they are as long whatever the places are.
Writer PutCommands(const MachOOptions& options, const Places& places) {
  const bool is_64 = (options.cpu_type >> 24) != 0;
  const uint32_t segment_command =
      is_64 ? kSegmentCommand64 : kSegmentCommand32;
  Writer out(options.order, is_64);
  out.Put32(is_64 ? kMachOMagic64 : kMachOMagic32);
  out.Put32(options.cpu_type);
  out.Put32(options.cpu_type == kCpuTypeArm64 ? 0 : 3);
  out.Put32(options.dynamic_library ? kDynamicLibraryType : kExecutableType);
  out.Put32(0);
  out.Put32(0);
  out.Put32(0x85);  // Complete, for the dynamic loader, two-level names.
  if (is_64) out.Put32(0);

  struct SectionPlace {
    std::string_view name;
    uint64_t offset;
    uint64_t size;
  };
  const auto put_segment = [&](std::string_view name, uint64_t address,
                               uint64_t vm_size, uint64_t offset, uint64_t size,
                               uint32_t protection,
                               const std::vector<SectionPlace>& sections) {
    out.PutCommand(segment_command, [&] {
      out.PutName(name);
      out.PutWord(address);
      out.PutWord(vm_size);
      out.PutWord(offset);
      out.PutWord(size);
      out.Put32(protection);
      out.Put32(protection);
      out.Put32(sections.size());
      out.Put32(0);
      for (const SectionPlace& section : sections) {
        out.PutName(section.name);
        out.PutName(name);
        out.PutWord(places.base + section.offset);
        out.PutWord(section.size);
        out.Put32(section.offset);
        for (int i = 0; i < (is_64 ? 7 : 6); ++i) out.Put32(0);
      }
    });
  };
  constexpr uint32_t kRead = 1;
  constexpr uint32_t kReadAndExecute = 5;
  if (!options.dynamic_library) {
    put_segment("__PAGEZERO", 0, places.base, 0, 0, 0, {});
  }
  std::vector<SectionPlace> sections = {
      {"__text", places.code, options.code_size}};
  if (!options.info_dictionary.empty()) {
    sections.push_back({"__info_plist", places.info_dictionary,
                        options.info_dictionary.size()});
  }
  put_segment("__TEXT", places.base, places.text_size, 0, places.text_size,
              kReadAndExecute, sections);
  put_segment("__LINKEDIT", places.base + places.text_size, places.page_size,
              places.text_size, kLinkEditSize, kRead, {});
  out.PutCommand(0x2, [&] {  // Symbols: none, and their strings.
    out.Put32(places.text_size);
    out.Put32(0);
    out.Put32(places.text_size);
    out.Put32(kLinkEditSize);
  });
  const auto put_library = [&](uint32_t type, uint32_t version,
                               std::string_view name) {
    out.PutCommand(type, [&] {
      for (const uint32_t value : {24u, 2u, version, 0x10000u}) {
        out.Put32(value);
      }
      out.PutText(name);
      out.Put32(0);
    });
  };
  if (options.dynamic_library) {
    put_library(0xd, options.library_version, "@rpath/libtest.dylib");
  } else {
    out.PutCommand(0xe, [&] {
      out.Put32(12);
      out.PutText("/usr/lib/dyld");
      out.Put32(0);
    });
    out.PutCommand(0x80000028, [&] {  // The entry point.
      out.Put64(places.code);
      out.Put64(0);
    });
  }
  put_library(0xc, 0x10000, "/usr/lib/libSystem.B.dylib");
  return out;
}

}  // namespace

std::vector<std::byte> BuildMachO(const MachOOptions& options) {
  Places places;
  places.page_size = options.cpu_type == kCpuTypeArm64 ? 0x4000 : 0x1000;
  if (!options.dynamic_library) {
    places.base = options.cpu_type == kCpuTypeX86 ? 0x1000 : 0x100000000;
  }
  places.code = PutCommands(options, places).size() + options.room;
  places.info_dictionary = places.code + options.code_size;
  places.text_size =
      RoundUp(places.info_dictionary + options.info_dictionary.size(),
              places.page_size);
  Writer image = PutCommands(options, places);
  image.PadTo(places.code);
  for (size_t i = 0; i < options.code_size; ++i) {
    const char code = static_cast<char>(i * 7 + i / 251);
    image.PutText({&code, 1});
  }
  image.PutText(options.info_dictionary);
  image.PadTo(places.text_size + kLinkEditSize);
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
