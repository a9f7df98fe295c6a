#include "platform/linux/signing/macho/code_directory.h"

#include <algorithm>
#include <iterator>

#include "platform/linux/signing/macho/macho_layout.h"

namespace zu::platform {
namespace {

// Versions from here on are not compatible with what is read here.
constexpr uint32_t kVersionLimit = 0x2f000;
constexpr uint8_t kMaxPageShift = 30;
// Real signatures have about ten; this keeps what is made of a signature from
// being larger than the signature.
constexpr uint32_t kMaxBlobs = 64;
constexpr size_t kSuperBlobHeaderSize = 12;
constexpr size_t kIndexEntrySize = 8;

// The NUL-terminated text at `offset`.
std::optional<std::string> LoadText(std::span<const std::byte> blob,
                                    uint32_t offset) {
  if (offset >= blob.size()) return std::nullopt;
  const auto text = blob.subspan(offset);
  const auto end = std::find(text.begin(), text.end(), std::byte{0});
  if (end == text.end()) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(text.data()),
                     static_cast<size_t>(end - text.begin()));
}

// The blob at the start of `bytes`, as long as it says.
std::optional<std::span<const std::byte>> TakeBlob(
    std::span<const std::byte> bytes) {
  if (bytes.size() < kBlobHeaderSize) return std::nullopt;
  const uint32_t size = LoadBig32(bytes, 4);
  if (size < kBlobHeaderSize || size > bytes.size()) return std::nullopt;
  return bytes.first(size);
}

uint64_t PageCount(const CodeDirectory& directory) {
  if (directory.code_limit == 0) return 0;
  return directory.page_size == 0
             ? 1
             : (directory.code_limit - 1) / directory.page_size + 1;
}

// Best first.
int Rank(CodeHash hash) {
  static constexpr CodeHash kOrder[] = {CodeHash::kSha384, CodeHash::kSha256,
                                        CodeHash::kSha256Truncated,
                                        CodeHash::kSha1};
  return static_cast<int>(
      std::find(std::begin(kOrder), std::end(kOrder), hash) -
      std::begin(kOrder));
}

}  // namespace

uint8_t HashSize(CodeHash hash) {
  switch (hash) {
    case CodeHash::kSha1:
    case CodeHash::kSha256Truncated:
      return 20;
    case CodeHash::kSha256:
      return 32;
    case CodeHash::kSha384:
      return 48;
  }
  return 0;
}

std::span<const std::byte> CodeDirectory::CodeSlot(uint32_t index) const {
  return bytes.subspan(hash_offset + size_t{index} * hash_size, hash_size);
}

std::span<const std::byte> CodeDirectory::SpecialSlot(uint32_t slot) const {
  if (slot == 0 || slot > special_slots) return {};
  const auto value =
      bytes.subspan(hash_offset - size_t{slot} * hash_size, hash_size);
  const bool is_set =
      std::any_of(value.begin(), value.end(),
                  [](std::byte byte) { return byte != std::byte{0}; });
  return is_set ? value : std::span<const std::byte>();
}

std::optional<CodeDirectory> ParseCodeDirectory(
    std::span<const std::byte> blob) {
  namespace field = directory_field;
  const auto taken = TakeBlob(blob);
  if (!taken || taken->size() < DirectoryHeaderSize(0) ||
      LoadBig32(*taken, 0) != kCodeDirectoryMagic) {
    return std::nullopt;
  }
  CodeDirectory directory;
  const std::span<const std::byte> bytes = directory.bytes = *taken;
  directory.version = LoadBig32(bytes, field::kVersion);
  directory.flags = LoadBig32(bytes, field::kFlags);
  const size_t header_size = DirectoryHeaderSize(directory.version);
  if (directory.version < kEarliestDirectory ||
      directory.version > kVersionLimit || bytes.size() < header_size) {
    return std::nullopt;
  }

  directory.hash = static_cast<CodeHash>(bytes[field::kHashType]);
  directory.hash_size = std::to_integer<uint8_t>(bytes[field::kHashSize]);
  if (directory.hash_size == 0 ||
      directory.hash_size != HashSize(directory.hash)) {
    return std::nullopt;
  }

  const auto page_shift = std::to_integer<uint8_t>(bytes[field::kPageShift]);
  if (page_shift > kMaxPageShift) return std::nullopt;
  if (page_shift != 0) directory.page_size = uint64_t{1} << page_shift;
  directory.code_limit = LoadBig32(bytes, field::kCodeLimit);
  if (directory.version >= kDirectoryWithCodeLimit64) {
    const uint64_t limit = LoadBig64(bytes, field::kCodeLimit64);
    if (limit != 0) directory.code_limit = limit;
  }
  // Code in scattered pieces was never in use.
  if (directory.version >= kDirectoryWithScatter &&
      LoadBig32(bytes, field::kScatterOffset) != 0) {
    return std::nullopt;
  }

  // The special slots lie before the hash offset, the code slots behind it.
  directory.hash_offset = LoadBig32(bytes, field::kHashOffset);
  directory.special_slots = LoadBig32(bytes, field::kSpecialSlots);
  directory.code_slots = LoadBig32(bytes, field::kCodeSlots);
  if (directory.hash_offset < header_size ||
      directory.hash_offset > bytes.size() ||
      directory.special_slots >
          (directory.hash_offset - header_size) / directory.hash_size ||
      directory.code_slots >
          (bytes.size() - directory.hash_offset) / directory.hash_size ||
      directory.code_slots != PageCount(directory)) {
    return std::nullopt;
  }

  auto identifier = LoadText(bytes, LoadBig32(bytes, field::kIdentifierOffset));
  if (!identifier) return std::nullopt;
  directory.identifier = std::move(*identifier);
  if (directory.version >= kDirectoryWithTeam) {
    const uint32_t offset = LoadBig32(bytes, field::kTeamOffset);
    if (offset != 0) {
      directory.team = LoadText(bytes, offset);
      if (!directory.team) return std::nullopt;
    }
  }
  return directory;
}

EmbeddedSignature::ParseResult EmbeddedSignature::Parse(
    std::vector<std::byte> bytes, EmbeddedSignature& signature) {
  signature = {};
  signature.bytes = std::move(bytes);
  if (signature.bytes.size() < kSuperBlobHeaderSize ||
      LoadBig32(signature.bytes, 0) != kEmbeddedSignatureMagic) {
    return ParseResult::kUnsigned;
  }
  // What the command names may be larger, for alignment.
  const auto super_blob = TakeBlob(signature.bytes);
  if (!super_blob || super_blob->size() < kSuperBlobHeaderSize) {
    return ParseResult::kMalformed;
  }
  const uint32_t count = LoadBig32(*super_blob, kBlobHeaderSize);
  const size_t index_end = kSuperBlobHeaderSize + count * kIndexEntrySize;
  if (count > kMaxBlobs || index_end > super_blob->size()) {
    return ParseResult::kMalformed;
  }
  // Goes on behind what is broken, for the sake of the message.
  bool broken = false;
  // Alternates come after the first directory and in order, wherever they lie.
  std::map<uint32_t, std::span<const std::byte>> blobs;
  for (size_t entry = kSuperBlobHeaderSize; entry < index_end;
       entry += kIndexEntrySize) {
    const uint32_t slot = LoadBig32(*super_blob, entry);
    const uint32_t offset = LoadBig32(*super_blob, entry + 4);
    if (offset < index_end || offset > super_blob->size()) {
      broken = true;
      continue;
    }
    const auto blob = TakeBlob(super_blob->subspan(offset));
    if (!blob || !blobs.emplace(slot, *blob).second) broken = true;
  }
  if (const auto cms = blobs.find(kCmsSlot); cms != blobs.end()) {
    if (LoadBig32(cms->second, 0) == kWrapperMagic) {
      signature.cms = cms->second.subspan(kBlobHeaderSize);
    } else {
      broken = true;
    }
    blobs.erase(cms);
  }
  if (broken) return ParseResult::kMalformed;
  if (!blobs.contains(kDirectorySlot)) return ParseResult::kUnsigned;
  for (const auto& [slot, blob] : blobs) {
    if (slot == kDirectorySlot ||
        (slot >= kFirstAlternateSlot && slot <= kLastAlternateSlot)) {
      auto directory = ParseCodeDirectory(blob);
      // Of two with the same hash it would be unclear which one counts.
      if (!directory ||
          std::any_of(signature.directories.begin(),
                      signature.directories.end(), [&](const auto& other) {
                        return other.hash == directory->hash;
                      })) {
        return ParseResult::kMalformed;
      }
      signature.directories.push_back(std::move(*directory));
    } else {
      signature.components.emplace(slot, blob);
    }
  }
  return ParseResult::kOk;
}

const CodeDirectory& EmbeddedSignature::best() const {
  return *std::min_element(
      directories.begin(), directories.end(),
      [](const auto& a, const auto& b) { return Rank(a.hash) < Rank(b.hash); });
}

}  // namespace zu::platform
