#include "platform/linux/signing/macho/code_directory.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <map>
#include <string>

#include "platform/linux/signing/macho/macho_layout.h"
#include "platform/linux/signing/signer/code_directory_writer.h"
#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

using Bytes = std::vector<std::byte>;
using ParseResult = EmbeddedSignature::ParseResult;
namespace field = directory_field;

const CryptoContext& Context() {
  static const auto context = CryptoContext::Create();
  return *context;
}

Bytes Pattern(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<std::byte>(i * 31 + i / 255);
  }
  return bytes;
}

Bytes Encode(const DirectoryContent& content, std::span<const std::byte> code) {
  return EncodeCodeDirectory(Context(), content, code);
}

FileDescriptor FileOf(std::span<const std::byte> bytes) {
  FileDescriptor file(::memfd_create("code", MFD_CLOEXEC));
  EXPECT_EQ(::pwrite(file.get(), bytes.data(), bytes.size(), 0),
            static_cast<ssize_t>(bytes.size()));
  return file;
}

void Store(Bytes& bytes, size_t offset, uint32_t value) {
  StoreInteger(std::span(bytes), offset, value, ByteOrder::kBig);
}

TEST(CodeDirectoryTest, ReadsEveryVersion) {
  const Bytes code = Pattern(10000);
  for (const uint32_t version : {0x20001u, 0x20100u, 0x20200u, 0x20300u,
                                 0x20400u, 0x20500u, 0x20600u, 0x2f000u}) {
    SCOPED_TRACE(version);
    Bytes blob = Encode(
        {.version = version,
         .flags = kAdHocFlag,
         .identifier = "org.example",
         .team = "A1B2C3D4E5",
         .sealed = {{kInfoSlot, Pattern(5)}, {kResourcesSlot, Pattern(6)}}},
        code);
    const bool has_limit_64 = version >= kDirectoryWithCodeLimit64;
    if (has_limit_64) {  // The other limit does not count then.
      Store(blob, field::kCodeLimit, 1);
      Store(blob, field::kCodeLimit64 + 4, 10000);
    }
    const auto directory = ParseCodeDirectory(blob);
    ASSERT_TRUE(directory);
    EXPECT_EQ(directory->version, version);
    EXPECT_TRUE(directory->is_ad_hoc());
    EXPECT_EQ(directory->code_limit, 10000u);
    EXPECT_EQ(directory->page_size, 4096u);
    EXPECT_EQ(directory->code_slots, 3u);
    EXPECT_EQ(directory->identifier, "org.example");
    EXPECT_EQ(directory->team, version >= kDirectoryWithTeam
                                   ? std::optional<std::string>("A1B2C3D4E5")
                                   : std::nullopt);
    EXPECT_EQ(directory->bytes.size(), blob.size());
    for (const uint32_t slot : {kRequirementsSlot, 0u, 4u, 0xffffffffu}) {
      EXPECT_TRUE(directory->SpecialSlot(slot).empty()) << slot;
      EXPECT_FALSE(MatchesSlot(Context(), *directory, slot, {}));
    }
    EXPECT_TRUE(MatchesSlot(Context(), *directory, kInfoSlot, Pattern(5)));
    EXPECT_FALSE(MatchesSlot(Context(), *directory, kInfoSlot, Pattern(6)));
    EXPECT_TRUE(MatchesSlot(Context(), *directory, kResourcesSlot, Pattern(6)));
  }
}

TEST(CodeDirectoryTest, RefusesBrokenOnes) {
  const Bytes good = Encode({.identifier = "id",
                             .team = "T",
                             .sealed = {{kRequirementsSlot, Pattern(9)}}},
                            Pattern(10000));
  // 88 bytes, "id", "T", 2 special slots, 3 code slots.
  const auto size = static_cast<uint32_t>(good.size());
  ASSERT_EQ(size, 88u + 3 + 2 + 5 * 32);
  const struct {
    const char* name;
    size_t offset;
    uint32_t value;
    bool is_good = false;
  } cases[] = {
      {"unchanged", 0, kCodeDirectoryMagic, true},
      {"no special slots", field::kSpecialSlots, 0, true},
      {"last page cut", field::kCodeLimit, 8193, true},
      {"other magic", 0, kRequirementsMagic},
      {"longer than the bytes", 4, size + 1},
      {"last hash cut", 4, size - 1},
      {"shorter than its header", 4, 87},
      {"no size", 4, 0},
      {"too old", field::kVersion, 0x20000},
      {"too new", field::kVersion, 0x2f001},
      {"hashes in the header", field::kHashOffset, 87},
      {"special slots in the header", field::kHashOffset, 88 + 63},
      {"hashes behind the end", field::kHashOffset, size + 1},
      {"hash offset overflows", field::kHashOffset, 0xffffffff},
      {"special slots overflow", field::kSpecialSlots, 0x08000001},
      {"one special slot too many", field::kSpecialSlots, 3},
      {"fewer code slots than pages", field::kCodeSlots, 2},
      {"more code slots than pages", field::kCodeSlots, 4},
      {"code slots overflow", field::kCodeSlots, 0x80000003},
      {"one page too many", field::kCodeLimit, 3 * 4096 + 1},
      {"no code", field::kCodeLimit, 0},
      {"64-bit limit", field::kCodeLimit64, 1},
      {"identifier behind the end", field::kIdentifierOffset, size},
      {"identifier without end", field::kIdentifierOffset, size - 1},
      {"team behind the end", field::kTeamOffset, 0xffffffff},
      {"scattered", field::kScatterOffset, 88},
      // Hash size, hash type, platform, page size.
      {"one page for all", field::kHashSize, 0x20020000},
      {"hash too short", field::kHashSize, 0x1402000c},
      {"hash too long", field::kHashSize, 0x2001000c},
      {"no hash size", field::kHashSize, 0x0002000c},
      {"unknown hash", field::kHashSize, 0x2005000c},
      {"neither hash nor size", field::kHashSize, 0x0000000c},
      {"page size overflows", field::kHashSize, 0x2002004c},
      {"truncated hash", field::kHashSize, 0x1403000c, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes blob = good;
    Store(blob, c.offset, c.value);
    EXPECT_EQ(ParseCodeDirectory(blob).has_value(), c.is_good);
  }
  for (size_t end = 0; end < good.size(); ++end) {
    EXPECT_FALSE(ParseCodeDirectory(std::span(good).first(end))) << end;
  }
}

TEST(EmbeddedSignatureTest, IsTakenApart) {
  const Bytes code = Pattern(5000);
  const auto directory = [&](CodeHash hash) {
    return Encode({.hash = hash, .identifier = "id"}, code);
  };
  const std::map<uint32_t, Bytes> blobs = {
      {kDirectorySlot, directory(CodeHash::kSha1)},
      {kRequirementsSlot, EncodeBlob(kRequirementsMagic, Pattern(4))},
      {kFirstAlternateSlot, directory(CodeHash::kSha256)},
      {kFirstAlternateSlot + 1, directory(CodeHash::kSha256Truncated)},
      {kLastAlternateSlot, directory(CodeHash::kSha384)},
      {kCmsSlot, EncodeBlob(kWrapperMagic, Pattern(7))}};
  Bytes good = EncodeSuperBlob(blobs);
  EmbeddedSignature parsed;
  {
    Bytes padded = good;
    padded.resize(good.size() + 999);
    ASSERT_EQ(EmbeddedSignature::Parse(padded, parsed), ParseResult::kOk);
  }
  const EmbeddedSignature signature = std::move(parsed);
  ASSERT_EQ(signature.directories.size(), 4u);
  EXPECT_EQ(signature.directories[0].hash, CodeHash::kSha1);
  EXPECT_EQ(signature.best().hash, CodeHash::kSha384);
  EXPECT_EQ(Bytes(signature.cms.begin(), signature.cms.end()), Pattern(7));
  ASSERT_EQ(signature.components.size(), 1u);
  const auto& requirements = signature.components.at(kRequirementsSlot);
  EXPECT_EQ(Bytes(requirements.begin(), requirements.end()),
            blobs.at(kRequirementsSlot));
  const auto count = static_cast<uint32_t>(blobs.size());
  const auto size = static_cast<uint32_t>(good.size());
  const auto first = LoadBig32(good, 16);
  const struct {
    const char* name;
    size_t offset;
    uint32_t value;
    ParseResult result;
  } cases[] = {
      {"other magic", 0, kWrapperMagic, ParseResult::kUnsigned},
      {"no directory", 12, 0x55, ParseResult::kUnsigned},
      {"nothing in it", 8, 0, ParseResult::kUnsigned},
      {"longer than the bytes", 4, size + 1, ParseResult::kMalformed},
      {"last blob cut", 4, size - 1, ParseResult::kMalformed},
      {"shorter than its header", 4, 11, ParseResult::kMalformed},
      {"count too large", 8, count + 1, ParseResult::kMalformed},
      {"count overflows", 8, 0x20000001, ParseResult::kMalformed},
      {"slot twice", 20, kDirectorySlot, ParseResult::kMalformed},
      {"blob in the index", 16, 12, ParseResult::kMalformed},
      {"blob behind the end", 16, size, ParseResult::kMalformed},
      {"offset overflows", 16, 0xfffffff8, ParseResult::kMalformed},
      {"blob too long", first + 4, size, ParseResult::kMalformed},
      {"blob without size", first + 4, 0, ParseResult::kMalformed},
      {"directory is none", first, kWrapperMagic, ParseResult::kMalformed},
      {"same hash twice", 16, LoadBig32(good, 32), ParseResult::kMalformed},
      {"CMS not wrapped", size - 15, kRequirementsMagic,
       ParseResult::kMalformed},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = good;
    Store(bytes, c.offset, c.value);
    EmbeddedSignature result;
    EXPECT_EQ(EmbeddedSignature::Parse(bytes, result), c.result);
  }
  for (size_t end = 0; end < good.size(); ++end) {
    EmbeddedSignature result;
    EXPECT_NE(EmbeddedSignature::Parse(
                  Bytes(good.begin(),
                        good.begin() + static_cast<std::ptrdiff_t>(end)),
                  result),
              ParseResult::kOk)
        << end;
  }
}

TEST(VerifyPagesTest, DetectsEveryChangedByte) {
  constexpr size_t kBehind = 100;
  Bytes code = Pattern(9000);
  for (const CodeHash hash : {CodeHash::kSha1, CodeHash::kSha256,
                              CodeHash::kSha256Truncated, CodeHash::kSha384}) {
    const Bytes blob = Encode({.hash = hash, .identifier = "id"},
                              std::span(code).first(code.size() - kBehind));
    const auto directory = ParseCodeDirectory(blob);
    ASSERT_TRUE(directory);
    const FileDescriptor file = FileOf(code);
    const auto verify = [&] {
      return VerifyPages(Context(), file.get(), 0, *directory);
    };
    ASSERT_EQ(verify(), PagesResult::kGood);
    for (size_t i = 0; i < code.size(); ++i) {
      const std::byte changed = code[i] ^ std::byte{1};
      ASSERT_EQ(::pwrite(file.get(), &changed, 1, static_cast<off_t>(i)), 1);
      ASSERT_EQ(verify(), i < code.size() - kBehind ? PagesResult::kDamaged
                                                    : PagesResult::kGood)
          << i;
      ASSERT_EQ(::pwrite(file.get(), &code[i], 1, static_cast<off_t>(i)), 1);
    }
  }
}

// Pages smaller and larger than what is read at once, one thread and two.
TEST(VerifyPagesTest, KnowsEveryPageSize) {
  constexpr size_t kOffset = 12345;  // Of the slice.
  const struct {
    uint8_t page_shift;
    size_t size;
  } cases[] = {{12, 4096},      {12, 4097},        {14, 100'000},
               {0, 700'000},    {20, 3'000'000},   {9, 300'000},
               {12, 9'000'001}, {14, 9 * 1048576}, {0, 9'000'000},
               {24, 40'000'000}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << int{c.page_shift} << ' ' << c.size);
    const Bytes bytes = Pattern(kOffset + c.size);
    const Bytes blob = Encode({.identifier = "id", .page_shift = c.page_shift},
                              std::span(bytes).subspan(kOffset));
    const auto directory = ParseCodeDirectory(blob);
    ASSERT_TRUE(directory);
    const FileDescriptor file = FileOf(bytes);
    const auto verify = [&] {
      return VerifyPages(Context(), file.get(), kOffset, *directory);
    };
    EXPECT_EQ(verify(), PagesResult::kGood);
    for (const size_t place : {size_t{0}, c.size / 3, c.size / 2, c.size - 1}) {
      const size_t at = kOffset + place;
      const std::byte changed = bytes[at] ^ std::byte{0x80};
      ASSERT_EQ(::pwrite(file.get(), &changed, 1, static_cast<off_t>(at)), 1);
      EXPECT_EQ(verify(), PagesResult::kDamaged) << place;
      ASSERT_EQ(::pwrite(file.get(), &bytes[at], 1, static_cast<off_t>(at)), 1);
    }
    ASSERT_EQ(::ftruncate(file.get(), static_cast<off_t>(bytes.size() - 1)), 0);
    EXPECT_EQ(verify(), PagesResult::kDamaged);
    EXPECT_EQ(VerifyPages(Context(), -1, 0, *directory),
              PagesResult::kUnreadable);
    EXPECT_EQ(VerifyPages(Context(), file.get(), UINT64_MAX, *directory),
              PagesResult::kDamaged);
  }
}

}  // namespace
}  // namespace zu::platform
