// Mach-O versions through the exported names, from small files of every form.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <cstring>
#include <filesystem>
#include <map>
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
constexpr uint32_t kTextOffset = 1000;

void Put32(Bytes& bytes, size_t offset, uint32_t value,
           ByteOrder order = ByteOrder::kLittle) {
  StoreInteger(std::span(bytes), offset, value, order);
}

// A 32-bit image with the text at its end, which a segment's one section has.
// In `changes` are words that differ, by offset. What follows the section, at
// 152, can become a segment.
Bytes Image(std::map<size_t, uint32_t> changes = {},
            ByteOrder order = ByteOrder::kLittle) {
  Bytes image(kTextOffset + sizeof kText - 1);
  for (const auto& [offset, text] :
       {std::pair(36, "__DATA"), {84, "__version"}, {kTextOffset, kText}}) {
    std::memcpy(&image[offset], text, std::strlen(text));
  }
  changes.insert({{0, kMachOMagic32},
                  {16, 1},  // Commands, and their size.
                  {20, 124},
                  {28, kSegmentCommand32},
                  {32, 124},
                  {64, 64},  // Length in the file, and sections.
                  {76, 1},
                  {120, sizeof kText - 1},
                  {124, kTextOffset}});
  for (const auto& [offset, value] : changes) {
    Put32(image, offset, value, order);
  }
  return image;
}

using MachOVersionTest = RootedTest;

TEST_F(MachOVersionTest, OfLibraries) {
  const Bytes program = BuildMachO();
  MachOOptions options = {.dynamic_library = true, .dylib_version = 0x20304};
  const Bytes intel = BuildMachO(options);
  options.order = ByteOrder::kBig;
  const Bytes big = BuildMachO(options);
  const Bytes universal = BuildUniversal({program, intel});
  const struct {
    Bytes file;
    uint32_t version;
    uint32_t compatible = 0x10000;
  } rows[] = {
      {intel, 0x20304},
      {big, 0x04030200, 0x100},
      {universal, 0x20304},
      {program, 0, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    WriteBytes(kFile, row.file);
    uint32_t info[2] = {};
    EXPECT_EQ(machoGetDylibInfo(kFile, info, 8),
              row.version != 0 ? 0 : ZU_MACHO_FAILED);
    EXPECT_EQ(info[1], row.compatible);
    uint32_t version = 0;
    EXPECT_EQ(ZuGetDylibVersion(kFile, &version), row.version != 0);
    EXPECT_EQ(version, row.version);
    EXPECT_EQ(machoGetDylibInfo(kFile, info, 7), ZU_MACHO_FAILED);
  }
}

TEST_F(MachOVersionTest, OfTexts) {
  const Bytes wide = BuildMachO();
  const struct {
    const char* name;
    Bytes file;
    int32_t size;
    uint32_t result;
    std::string read = "";
  } rows[] = {
      {"fits", Image(), 10, 0, kText},
      {"fits exactly", Image(), 9, 64},
      {"no room", Image(), -10, 64},
      {"segment behind", Image({{16, 2}, {20, 180}, {152, 1}, {156, 56}}), 9,
       0},
      {"second slice", BuildUniversal({wide, Image()}), 32, 0, kText},
      {"other order", Image({}, ByteOrder::kBig), 10, 0, kText},
      {"not in the file", Image({{124, 1001}}), 10, ZU_MACHO_FAILED},
      {"other segment", Image({{36, 'a'}}), 10, ZU_MACHO_FAILED},
      {"other section", Image({{84, 'a'}}), 10, ZU_MACHO_FAILED},
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
  // The magic number, the commands' size, that of the first one, too many
  // sections, and a library's identifier without its versions.
  std::vector<Bytes> files = {
      Image({{0, 0xcafebabe}}),  Image({{20, 0xffffffff}}),
      Image({{32, 7}}),          Image({{32, 0xffffffff}}),
      Image({{76, 0xffffffff}}), Image({{28, 13}, {32, 16}})};
  for (size_t size = 0; size < 28 + 124; ++size) {
    files.push_back(Image());
    files.back().resize(size);
  }
  for (const Bytes& file : files) {
    SCOPED_TRACE(&file - files.data());
    WriteBytes(kFile, file);
    ExpectNone(kFile);
  }
}

// It would cost hours if it were believed.
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
