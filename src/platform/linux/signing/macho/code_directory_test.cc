#include "platform/linux/signing/macho/code_directory.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
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

void Store(Bytes& bytes, size_t offset, uint32_t value) {
  StoreInteger(std::span(bytes), offset, value, ByteOrder::kBig);
}

TEST(CodeDirectoryTest, ReadsEveryVersion) {
  const Bytes code = Pattern(10000);
  for (const uint32_t version : {0x20001u, 0x20200u, 0x2f000u}) {
    SCOPED_TRACE(version);
    Bytes blob = Encode(
        {.version = version, .identifier = "org.example", .team = "A1B2C3D4E5"},
        code);
    if (version >= kDirectoryWithCodeLimit64) {  // Then the other counts.
      Store(blob, field::kCodeLimit, 1);
      Store(blob, field::kCodeLimit64 + 4, 10000);
    }
    const auto directory = ParseCodeDirectory(blob);
    ASSERT_TRUE(directory);
    EXPECT_EQ(directory->code_limit, 10000u);
    EXPECT_EQ(directory->identifier, "org.example");
    EXPECT_EQ(directory->team, version >= kDirectoryWithTeam
                                   ? std::optional<std::string>("A1B2C3D4E5")
                                   : std::nullopt);
    EXPECT_FALSE(MatchesSlot(Context(), *directory, 0xffffffff, {}));
  }
}

TEST(CodeDirectoryTest, RefusesBrokenOnes) {
  const Bytes good = Encode({.identifier = "id",
                             .team = "T",
                             .sealed = {{kRequirementsSlot, Pattern(9)}}},
                            Pattern(10000));
  // 88 bytes, "id", "T", 2 special slots, 3 code slots.
  const auto size = static_cast<uint32_t>(good.size());
  const struct {
    const char* name;
    size_t offset;
    uint32_t value;
    bool is_good = false;
  } cases[] = {
      {"last page cut", field::kCodeLimit, 8193, true},
      {"longer than the bytes", 4, size + 1},
      {"shorter than its header", 4, 87},
      {"hashes in the header", field::kHashOffset, 87},
      {"hash offset overflows", field::kHashOffset, 0xffffffff},
      {"special slots overflow", field::kSpecialSlots, 0x08000001},
      {"fewer code slots than pages", field::kCodeSlots, 2},
      {"code slots overflow", field::kCodeSlots, 0x80000003},
      {"64-bit limit", field::kCodeLimit64, 1},
      {"identifier without end", field::kIdentifierOffset, size - 1},
      {"team behind the end", field::kTeamOffset, 0xffffffff},
      // Hash size, hash type, platform, page size.
      {"unknown hash", field::kHashSize, 0x2005000c},
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
  const auto directory = [](CodeHash hash) {
    return Encode({.hash = hash, .identifier = "id"}, Pattern(5000));
  };
  const std::map<uint32_t, Bytes> blobs = {
      {kDirectorySlot, directory(CodeHash::kSha1)},
      {kRequirementsSlot, EncodeBlob(kRequirementsMagic, Pattern(4))},
      {kLastAlternateSlot, directory(CodeHash::kSha384)},
      {kCmsSlot, EncodeBlob(kWrapperMagic, Pattern(7))}};
  const Bytes good = EncodeSuperBlob(blobs);
  Bytes padded = good;
  padded.resize(good.size() + 999);
  EmbeddedSignature signature;
  ASSERT_EQ(EmbeddedSignature::Parse(padded, signature), ParseResult::kOk);
  ASSERT_EQ(signature.directories.size(), 2u);
  EXPECT_EQ(signature.best().hash, CodeHash::kSha384);
  EXPECT_TRUE(std::ranges::equal(signature.cms, Pattern(7)));
  ASSERT_EQ(signature.components.size(), 1u);
  const auto size = static_cast<uint32_t>(good.size());
  const auto first = LoadBig32(good, 16);
  const struct {
    const char* name;
    size_t offset;
    uint32_t value;
    ParseResult result = ParseResult::kMalformed;
  } cases[] = {
      {"no directory", 12, 0x55, ParseResult::kUnsigned},
      {"longer than the bytes", 4, size + 1},
      {"count overflows", 8, 0x20000001},
      {"slot twice", 20, kDirectorySlot},
      {"offset overflows", 16, 0xfffffff8},
      {"blob too long", first + 4, size},
      {"same hash twice", 16, LoadBig32(good, 32)},
      {"CMS not wrapped", size - 15, kRequirementsMagic},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = good;
    Store(bytes, c.offset, c.value);
    EXPECT_EQ(EmbeddedSignature::Parse(bytes, signature), c.result);
  }
}

// Pages smaller and larger than what is read at once, one thread and two.
TEST(VerifyPagesTest, DetectsChanges) {
  constexpr size_t kOffset = 12345;  // Of the slice.
  const struct {
    CodeHash hash;
    uint8_t page_shift;
    size_t size;
  } cases[] = {{CodeHash::kSha1, 12, 4096},
               {CodeHash::kSha256Truncated, 9, 4097},
               {CodeHash::kSha256, 12, 9'000'001},
               {CodeHash::kSha256, 0, 9'000'000},
               {CodeHash::kSha256, 24, 40'000'000}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    const Bytes bytes = Pattern(kOffset + c.size + 100);
    const Bytes blob =
        Encode({.hash = c.hash, .identifier = "id", .page_shift = c.page_shift},
               std::span(bytes).subspan(kOffset, c.size));
    const auto directory = ParseCodeDirectory(blob);
    ASSERT_TRUE(directory);
    const FileDescriptor file(::memfd_create("code", MFD_CLOEXEC));
    ASSERT_EQ(::pwrite(file.get(), bytes.data(), bytes.size(), 0),
              static_cast<ssize_t>(bytes.size()));
    const auto verify = [&] {
      return VerifyPages(Context(), file.get(), kOffset, *directory);
    };
    EXPECT_EQ(verify(), PagesResult::kGood);
    for (const size_t place : {size_t{0}, c.size / 3, c.size - 1, c.size}) {
      const size_t at = kOffset + place;
      const std::byte changed = bytes[at] ^ std::byte{0x80};
      ASSERT_EQ(::pwrite(file.get(), &changed, 1, static_cast<off_t>(at)), 1);
      EXPECT_EQ(verify(),
                place < c.size ? PagesResult::kDamaged : PagesResult::kGood)
          << place;
      ASSERT_EQ(::pwrite(file.get(), &bytes[at], 1, static_cast<off_t>(at)), 1);
    }
    ASSERT_EQ(::ftruncate(file.get(), static_cast<off_t>(kOffset + c.size - 1)),
              0);
    EXPECT_EQ(verify(), PagesResult::kDamaged);
    EXPECT_EQ(VerifyPages(Context(), -1, 0, *directory),
              PagesResult::kUnreadable);
  }
}

}  // namespace
}  // namespace zu::platform
