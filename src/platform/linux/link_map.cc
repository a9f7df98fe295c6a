#include "platform/linux/link_map.h"

#include <elf.h>
#include <algorithm>
#include <cstring>

namespace zu::platform {
namespace {

// The kernel runs no program with more header bytes; dynamic sections have some
// tens of entries.
constexpr size_t kMaxSection = 65536;

// The loader's published structures, as far as they are of use. Its name for
// the first is r_debug, for the second link_map.
struct ImageLists {
  uint32_t version;
  uint32_t padding;
  uint64_t first;
  uint64_t stop;  // Code that the loader runs at each change.
  uint32_t state;
  uint32_t more_padding;
};
// While it adds or removes images, its list may lead anywhere.
constexpr uint32_t kConsistent = 0;
// Where, from version 2 on, the first leads to that of another name space.
constexpr uint64_t kNextLists = 40;
struct Image {
  uint64_t base;
  uint64_t path;
  uint64_t dynamic_section;
  uint64_t next;
};

template <typename Record>
std::optional<Record> ReadRecord(std::span<const std::byte> bytes) {
  if (bytes.size() < sizeof(Record)) return std::nullopt;
  Record record;
  std::memcpy(&record, bytes.data(), sizeof record);
  return record;
}

// The next record of a table, which loses it; absent at the table's end.
template <typename Record>
std::optional<Record> TakeRecord(std::span<const std::byte>& table) {
  const auto record = ReadRecord<Record>(table);
  if (record) table = table.subspan(sizeof(Record));
  return record;
}

// Where the dynamic section points the debuggers to; 0 for nowhere.
uint64_t FindDebugRecord(std::span<const std::byte> section) {
  while (const auto entry = TakeRecord<Elf64_Dyn>(section)) {
    if (entry->d_tag == DT_NULL) break;
    if (entry->d_tag == DT_DEBUG) return entry->d_un.d_ptr;
  }
  return 0;
}

}  // namespace

std::optional<ProgramFacts> ParseAuxiliaryVector(
    std::span<const std::byte> bytes) {
  ProgramFacts facts;
  uint64_t header_size = 0;
  while (const auto entry = TakeRecord<Elf64_auxv_t>(bytes)) {
    const uint64_t value = entry->a_un.a_val;
    switch (entry->a_type) {
      case AT_PHDR:
        facts.headers = value;
        break;
      case AT_PHENT:
        header_size = value;
        break;
      case AT_PHNUM:
        facts.header_count = value;
        break;
      case AT_SYSINFO_EHDR:
        facts.kernel_image = value;
        break;
    }
  }
  if (header_size != sizeof(Elf64_Phdr)) return std::nullopt;
  return facts;
}

ListResult ListImages(const ProgramFacts& program, const MemoryReader& read,
                      std::vector<ImageRecord>& images) {
  if (program.header_count > kMaxSection / sizeof(Elf64_Phdr))
    return ListResult::kNoProgram;
  const size_t size =
      static_cast<size_t>(program.header_count) * sizeof(Elf64_Phdr);
  std::span<const std::byte> headers = read(program.headers, size);
  if (headers.size() < size) return ListResult::kNoProgram;

  // Where the headers do not tell of themselves, the loader, too, takes the
  // program as not moved.
  uint64_t moved_by = 0;
  bool has_loader = false;
  std::optional<Elf64_Phdr> dynamic;
  while (const auto header = TakeRecord<Elf64_Phdr>(headers)) {
    if (header->p_type == PT_PHDR) moved_by = program.headers - header->p_vaddr;
    if (header->p_type == PT_INTERP) has_loader = true;
    if (header->p_type == PT_DYNAMIC) dynamic = header;
  }
  if (!has_loader || !dynamic) return ListResult::kListed;

  const size_t dynamic_size = std::min(dynamic->p_memsz, kMaxSection);
  const auto section = read(dynamic->p_vaddr + moved_by, dynamic_size);
  if (section.size() < dynamic_size) return ListResult::kNoProgram;

  // The lists come before any image: they say whether images can be relied on.
  // Each of either counts, so that cycles end.
  size_t records = 0;
  std::vector<uint64_t> first_images;
  for (uint64_t address = FindDebugRecord(section); address != 0;) {
    const auto lists =
        ReadRecord<ImageLists>(read(address, sizeof(ImageLists)));
    if (!lists || ++records > kMaxImages) return ListResult::kNoList;
    if (lists->state != kConsistent) return ListResult::kNoList;
    first_images.push_back(lists->first);
    if (lists->version < 2) break;
    const auto other =
        ReadRecord<uint64_t>(read(address + kNextLists, sizeof(uint64_t)));
    if (!other) return ListResult::kNoList;
    address = *other;
  }
  for (uint64_t next : first_images) {
    while (next != 0) {
      const auto image = ReadRecord<Image>(read(next, sizeof(Image)));
      if (!image || ++records > kMaxImages) return ListResult::kNoList;
      if (image->base != program.kernel_image || image->base == 0) {
        images.push_back({next, image->path});
      }
      next = image->next;
    }
  }
  return ListResult::kListed;
}

}  // namespace zu::platform
