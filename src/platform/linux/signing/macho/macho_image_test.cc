#include "platform/linux/signing/macho/macho_image.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

#include "platform/linux/signing/macho/macho_layout.h"
#include "support/file_descriptor.h"
#include "tests/support/macho_builder.h"

namespace zu::platform {
namespace {

using Bytes = std::vector<std::byte>;
using test::BuildMachO;
using test::BuildUniversal;
using test::MachOOptions;

const std::string kInfo = "<plist><dict/></plist>";

MachOResult Read(const Bytes& bytes, std::vector<MachOSlice>& slices) {
  const FileDescriptor file(::memfd_create("macho", MFD_CLOEXEC));
  EXPECT_EQ(::write(file.get(), bytes.data(), bytes.size()),
            static_cast<ssize_t>(bytes.size()));
  return ReadMachO(file.get(), slices);
}

TEST(MachOImageTest, ReadsEveryKindOfImage) {
  const MachOOptions options[] = {
      {.info_dictionary = kInfo},
      {.cpu_type = 18, .order = ByteOrder::kBig, .info_dictionary = kInfo},
  };
  std::vector<Bytes> images;
  std::ranges::transform(options, std::back_inserter(images), BuildMachO);
  for (const bool is_64 : {false, true}) {
    std::vector<MachOSlice> slices;
    const Bytes file = BuildUniversal(images, is_64);
    ASSERT_EQ(Read(file, slices), MachOResult::kOk);
    ASSERT_EQ(slices.size(), images.size());
    for (size_t i = 0; i < slices.size(); ++i) {
      const MachOSlice& slice = slices[i];
      const auto* const start = file.data() + slice.range.offset;
      EXPECT_TRUE(
          std::ranges::equal(images[i], std::span(start, slice.range.size)));
      EXPECT_EQ(slice.cpu_type, static_cast<int32_t>(options[i].cpu_type));
      const FileRange info = slice.info_dictionary.value_or(FileRange{});
      EXPECT_EQ(std::string(reinterpret_cast<const char*>(start) + info.offset,
                            info.size),
                options[i].info_dictionary);
    }
  }
}

// Overwrites 32-bit fields of a good file, or cuts it.
struct DamageCase {
  const char* name;
  std::vector<std::pair<size_t, uint32_t>> fields;  // Offsets and values.
  MachOResult result = MachOResult::kMalformed;
  size_t size = SIZE_MAX;
};

void ExpectResults(const Bytes& good, ByteOrder order,
                   const std::vector<DamageCase>& cases) {
  for (const DamageCase& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes file = good;
    for (const auto& [offset, value] : c.fields) {
      StoreInteger(std::span(file), offset, value, order);
    }
    file.resize(std::min(c.size, file.size()));
    std::vector<MachOSlice> slices;
    EXPECT_EQ(Read(file, slices), c.result);
    EXPECT_EQ(slices.empty(), c.result != MachOResult::kOk);
  }
}

TEST(MachOImageTest, RefusesBrokenImages) {
  // The commands of this image: text, link edit, symbols, a library.
  const Bytes good = BuildMachO({.info_dictionary = kInfo});
  const size_t text = 32;
  const size_t sections = text + kSegment64.section_count;
  const size_t info = text + kSegment64.size + kSegment64.section_size;
  const size_t last = text + 2 * kSegment64.size + 2 * kSegment64.section_size;
  const size_t next = last + 24;
  const auto end = static_cast<uint32_t>(good.size());
  constexpr uint32_t kSign = kSignatureCommand;
  using R = MachOResult;
  ExpectResults(
      good, ByteOrder::kLittle,
      {
          {"none", {}, R::kOk},
          {"signature too long",
           {{last, kSign}, {last + 8, end - 8}, {last + 12, 9}}},
          {"two signatures", {{last, kSign}, {last + 12, 0}, {next, kSign}}},
          {"magic alone", {}, R::kNotMachO, 4},
          {"commands cut", {}, R::kMalformed, 100},
          {"too many commands", {{16, 0xffffffff}}},
          {"command without size", {{text + 4, 0}}},
          {"command behind the end", {{last + 4, 0x1000}}},
          {"segment cut short", {{last, kSegmentCommand64}}},
          {"section count overflows", {{sections, 1u << 31}}},
          {"information outside", {{info + 48, end}}},
      });
  std::vector<MachOSlice> slices;
  EXPECT_EQ(ReadMachO(-1, slices), R::kUnreadable);
}

TEST(MachOImageTest, RefusesBrokenUniversalHeaders) {
  const Bytes image = BuildMachO();  // Too large for 0x1000, not for 0x2000.
  const auto size = static_cast<uint32_t>(image.size());
  using R = MachOResult;
  ExpectResults(BuildUniversal({image, image}), ByteOrder::kBig,
                {
                    {"none", {}, R::kOk},
                    {"class file of Java", {{4, 0x34}}, R::kNotMachO},
                    {"slice outside", {{40, size + 1}}, R::kNotMachO},
                    {"sum overflows", {{36, 0xfffffff0}}, R::kNotMachO},
                    {"slice is the file itself", {{16, 0}}, R::kNotMachO},
                    {"overlapping", {{36, 0x1000}}},
                    {"other CPU than listed", {{28, 12}}},
                });
}

}  // namespace
}  // namespace zu::platform
