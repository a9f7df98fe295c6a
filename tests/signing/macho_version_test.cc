// Mach-O versions through the exported names, from small files of every form.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "ZuHelper.h"
#include "tests/support/macho_builder.h"
#include "tests/support/test_root.h"

namespace zu::test {
namespace {

using Bytes = std::vector<std::byte>;

constexpr char kFile[] = "/tmp/file";
constexpr char kText[] = "10.2/beta";
constexpr uint32_t kTextSize = 9;
constexpr uint32_t kTextOffset = 1000;

void Put32(Bytes& bytes, size_t offset, uint32_t value,
           ByteOrder order = ByteOrder::kLittle) {
  StoreInteger(std::span(bytes), offset, value, order);
}

struct SectionRow {
  const char* name;
  uint32_t size = kTextSize;
  uint32_t offset = kTextOffset;
};
struct SegmentRow {
  const char* name;
  uint32_t file_size;
  std::vector<SectionRow> sections;
};

// A 32-bit image of these segments, with the text at its end.
Bytes Image(const std::vector<SegmentRow>& segments,
            ByteOrder order = ByteOrder::kLittle) {
  Bytes image(kTextOffset + kTextSize);
  std::memcpy(&image[kTextOffset], kText, kTextSize);
  const auto put = [&](size_t offset, size_t value) {
    Put32(image, offset, static_cast<uint32_t>(value), order);
  };
  size_t at = 28;
  for (const SegmentRow& segment : segments) {
    put(at, 1);
    put(at + 4, 56 + 68 * segment.sections.size());
    std::strcpy(reinterpret_cast<char*>(&image[at + 8]), segment.name);
    put(at + 36, segment.file_size);
    put(at + 48, segment.sections.size());
    at += 56;
    for (const SectionRow& section : segment.sections) {
      std::strcpy(reinterpret_cast<char*>(&image[at]), section.name);
      put(at + 36, section.size);
      put(at + 40, section.offset);
      at += 68;
    }
  }
  put(0, 0xfeedface);
  put(4, 7);
  put(16, segments.size());
  put(20, at - 28);
  return image;
}

class MachOVersionTest : public RootedTest {};

TEST_F(MachOVersionTest, OfLibraries) {
  const Bytes program = BuildMachO();
  const auto library = [](uint32_t cpu, uint32_t version,
                          ByteOrder order = ByteOrder::kLittle) {
    return BuildMachO({.cpu_type = cpu,
                       .order = order,
                       .dynamic_library = true,
                       .library_version = version});
  };
  const Bytes intel = library(kCpuTypeX86_64, 0x20304);
  const Bytes old = library(kCpuTypeX86, 0x50607);
  Bytes little = BuildUniversal({program, old});  // With its header turned.
  for (size_t i = 0; i < 8 + 2 * 20; i += 4) {
    Put32(little, i, LoadBig32(little, i));
  }
  const struct {
    const char* name;
    Bytes file;
    uint32_t version;
    uint32_t compatible = 0x10000;
  } rows[] = {
      {"64 bits", intel, 0x20304},
      {"32 bits", old, 0x50607},
      {"other order", library(18, 0x20304, ByteOrder::kBig), 0x04030200, 0x100},
      {"the first slice that has one", BuildUniversal({program, old, intel}),
       0x50607},
      {"little-endian header", little, 0x50607},
      {"program", program, 0, 0},
      {"programs", BuildUniversal({program, program}), 0, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    WriteBytes(kFile, row.file);
    uint32_t info[2] = {};
    EXPECT_EQ(machoGetDylibInfo(kFile, info, 8),
              row.version != 0 ? 0 : ZU_MACHO_FAILED);
    EXPECT_EQ(std::pair(info[0], info[1]),
              std::pair(row.version, row.compatible));
    uint32_t version = 0;
    EXPECT_EQ(ZuGetDylibVersion(kFile, &version), row.version != 0);
    EXPECT_EQ(version, row.version);
    EXPECT_EQ(machoGetDylibInfo(kFile, info, 7), ZU_MACHO_FAILED);
  }
}

TEST_F(MachOVersionTest, OfTexts) {
  const SegmentRow data = {"__DATA", 64, {{"__data"}, {"__version"}}};
  const SegmentRow text = {"__TEXT", 70, {{"__version"}}};
  const SegmentRow end = {"__LINKEDIT", 80, {}};
  const Bytes wide = BuildMachO();
  const std::string none;
  const struct {
    const char* name;
    Bytes file;
    int32_t size;
    uint32_t result;
    std::string read;
  } rows[] = {
      {"fits", Image({text, end, data}), 10, 0, kText},
      {"fits exactly", Image({text, end, data}), 9, 64, none},
      {"no room", Image({data}), -10, 64, none},
      {"segment behind", Image({data, end}), 9, 0, none},
      {"slice behind", BuildUniversal({Image({data}), Image({text})}), 9, 0,
       none},
      {"64-bit slice behind", BuildUniversal({Image({data}), wide}), 9, 64,
       none},
      {"second section",
       Image({{"__DATA", 64, {{"__version", 10}, {"__version"}}}}), 10, 0,
       kText},
      {"second slice", BuildUniversal({wide, Image({text}), Image({data})}), 32,
       0, kText},
      {"other order", Image({data}, ByteOrder::kBig), 10, 0, kText},
      {"not in the file", Image({{"__DATA", 64, {{"__version", 9, 1001}}}}), 10,
       ZU_MACHO_FAILED, none},
      {"no length", Image({{"__DATA", 0, {{"__version"}}}}), 9, ZU_MACHO_FAILED,
       none},
      {"other segments", Image({text, end}), 10, ZU_MACHO_FAILED, none},
      {"64 bits", wide, 10, ZU_MACHO_FAILED, none},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    WriteBytes(kFile, row.file);
    char buffer[32] = {};
    EXPECT_EQ(ZuGetZubrantDylibVersion(kFile, buffer, row.size), row.result);
    EXPECT_EQ(std::string(buffer, sizeof buffer),
              row.read + std::string(sizeof buffer - row.read.size(), '\0'));
  }
}

void ExpectNone(const char* path) {
  uint32_t version = 1;
  char buffer[32];
  EXPECT_EQ(ZuGetDylibVersion(path, &version), 0u);
  EXPECT_EQ(version, 1u);
  EXPECT_EQ(machoGetVersionString(path, buffer, sizeof buffer),
            ZU_MACHO_FAILED);
}

TEST_F(MachOVersionTest, BrokenFilesHaveNone) {
  const Bytes library =
      BuildMachO({.cpu_type = kCpuTypeX86, .dynamic_library = true});
  const Bytes image =
      Image({{"__TEXT", 1, {}}, {"__DATA", 1, {{"__version"}}}});
  // Where, and what is put there.
  const std::pair<size_t, std::vector<uint32_t>> rows[] = {
      {0, {0, 0xfeedfacd, 0xbebafeca, 0xcafebabe}},  // The magic number.
      {20, {0, 8, 0x7fffffff, 0xffffffff}},          // Size of the commands.
      {32, {0, 7, 0x7fffffff, 0xffffffff}},          // Size of the first.
  };
  for (const Bytes& good : {library, image}) {
    Bytes file = good;
    for (const auto& [offset, values] : rows) {
      for (const uint32_t value : values) {
        SCOPED_TRACE(std::to_string(offset) + ": " + std::to_string(value));
        Put32(file, offset, value);
        WriteBytes(kFile, file);
        ExpectNone(kFile);
      }
      file = good;
    }
    const auto commands = LoadInteger<uint32_t>(good, 20, ByteOrder::kLittle);
    for (size_t size = 0; size < 28 + commands; ++size) {
      WriteBytes(kFile, std::span(good).first(size));
      ExpectNone(kFile);
    }
  }
  Bytes sections = Image({{"__DATA", 1, {{"__version"}}}});
  Put32(sections, 28 + 48, 0xffffffff);
  Bytes identifier = Image({{"", 0, {}}});
  Put32(identifier, 28, 13);
  Put32(identifier, 32, 16);  // Without its versions.
  for (const Bytes& file : {sections, identifier}) {
    WriteBytes(kFile, file);
    ExpectNone(kFile);
  }
}

// These would cost hours, or all memory, if they were believed.
TEST_F(MachOVersionTest, HugeFilesEndSoon) {
  constexpr uint32_t kSlices = 200000, kCommands = 8 << 20;
  constexpr uint32_t kSlice = 8 + kSlices * 20;
  Bytes shared(kSlice + 28 + kCommands);
  Put32(shared, 0, 0xcafebabe);
  Put32(shared, 4, kSlices);
  for (size_t i = 0; i < kSlices; ++i) Put32(shared, 16 + i * 20, kSlice);
  Put32(shared, kSlice, 0xfeedface);
  Put32(shared, kSlice + 16, 0xffffffff);  // Of size 0, if there were one.
  Put32(shared, kSlice + 20, kCommands);
  WriteBytes(kFile, shared);
  ExpectNone(kFile);
  // Four billion slices, and a class file, in a terabyte.
  for (const uint32_t count : {0xffffffffu, 0x34000000u}) {
    const uint32_t head[] = {0xbebafeca, count};
    WriteBytes(kFile, std::as_bytes(std::span(head)));
    std::filesystem::resize_file(kFile, uint64_t{1} << 40);
    ExpectNone(kFile);
  }
}

TEST_F(MachOVersionTest, OnlyRegularFilesAreRead) {
  std::filesystem::remove(kFile);
  ASSERT_EQ(::mkfifo(kFile, 0600), 0);
  for (const char* path : {kFile, "/dev/zero", "/tmp", "/tmp/none", ""}) {
    ExpectNone(path);
  }
  ExpectNone(nullptr);
}

}  // namespace
}  // namespace zu::test
