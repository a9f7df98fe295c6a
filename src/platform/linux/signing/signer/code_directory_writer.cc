#include "platform/linux/signing/signer/code_directory_writer.h"

#include <algorithm>
#include <limits>

namespace zu::platform {
namespace {

// Where the variable parts lie: fixed part, identifier, team, special slots
// (the last one first), code slots.
struct Plan {
  Plan(const DirectoryContent& content, uint64_t code_size) {
    identifier = DirectoryHeaderSize(content.version);
    team = identifier + content.identifier.size() + 1;
    special_slots = content.sealed.empty() ? 0 : content.sealed.rbegin()->first;
    page_size = content.page_shift == 0 ? std::max<uint64_t>(code_size, 1)
                                        : uint64_t{1} << content.page_shift;
    code_slots = static_cast<uint32_t>((code_size + page_size - 1) / page_size);
    hash_size = HashSize(content.hash);
    hashes = team + (content.team ? content.team->size() + 1 : 0) +
             special_slots * hash_size;
    size = hashes + size_t{code_slots} * hash_size;
  }

  size_t identifier = 0;
  size_t team = 0;
  uint32_t special_slots = 0;
  uint64_t page_size = 0;
  uint32_t code_slots = 0;
  uint8_t hash_size = 0;
  size_t hashes = 0;
  size_t size = 0;
};

void Copy(std::span<const std::byte> from, std::span<std::byte> to,
          size_t offset) {
  std::copy(from.begin(), from.end(), to.subspan(offset).begin());
}

void Store32(std::span<std::byte> bytes, size_t offset, size_t value) {
  StoreInteger(bytes, offset, static_cast<uint32_t>(value), ByteOrder::kBig);
}

void Store64(std::span<std::byte> bytes, size_t offset, uint64_t value) {
  StoreInteger(bytes, offset, value, ByteOrder::kBig);
}

}  // namespace

size_t CodeDirectorySize(const DirectoryContent& content, uint64_t code_size) {
  return Plan(content, code_size).size;
}

std::vector<std::byte> EncodeCodeDirectory(const CryptoContext& context,
                                           const DirectoryContent& content,
                                           std::span<const std::byte> code) {
  namespace field = directory_field;
  const Plan plan(content, code.size());
  const bool is_large = code.size() > std::numeric_limits<uint32_t>::max();
  std::vector<std::byte> bytes(plan.size);
  Store32(bytes, 0, kCodeDirectoryMagic);
  Store32(bytes, 4, plan.size);
  Store32(bytes, field::kVersion, content.version);
  Store32(bytes, field::kFlags, content.flags);
  Store32(bytes, field::kHashOffset, plan.hashes);
  Store32(bytes, field::kIdentifierOffset, plan.identifier);
  Store32(bytes, field::kSpecialSlots, plan.special_slots);
  Store32(bytes, field::kCodeSlots, plan.code_slots);
  Store32(bytes, field::kCodeLimit,
          is_large ? std::numeric_limits<uint32_t>::max() : code.size());
  bytes[field::kHashSize] = std::byte{plan.hash_size};
  bytes[field::kHashType] = static_cast<std::byte>(content.hash);
  bytes[field::kPageShift] = std::byte{content.page_shift};
  if (content.version >= kDirectoryWithTeam && content.team) {
    Store32(bytes, field::kTeamOffset, plan.team);
    Copy(std::as_bytes(std::span(*content.team)), bytes, plan.team);
  }
  if (content.version >= kDirectoryWithCodeLimit64 && is_large) {
    Store64(bytes, field::kCodeLimit64, code.size());
  }
  if (content.version >= kDirectoryWithExecutableSegment) {
    Store64(bytes, field::kExecutableSegment,
            content.executable_segment.offset);
    Store64(bytes, field::kExecutableSegment + 8,
            content.executable_segment.size);
    Store64(bytes, field::kExecutableSegment + 16,
            content.executable_segment_flags);
  }
  Copy(std::as_bytes(std::span(content.identifier)), bytes, plan.identifier);

  const auto store_hash = [&](std::span<const std::byte> data, size_t offset) {
    const std::vector<std::byte> hash = HashOf(context, content.hash, data);
    if (hash.empty()) return false;
    Copy(std::span(hash).first(plan.hash_size), bytes, offset);
    return true;
  };
  for (const auto& [slot, data] : content.sealed) {
    if (!store_hash(data, plan.hashes - size_t{slot} * plan.hash_size)) {
      return {};
    }
  }
  for (uint32_t page = 0; page < plan.code_slots; ++page) {
    const auto rest = code.subspan(static_cast<size_t>(page * plan.page_size));
    const auto size =
        static_cast<size_t>(std::min<uint64_t>(plan.page_size, rest.size()));
    if (!store_hash(rest.first(size),
                    plan.hashes + size_t{page} * plan.hash_size)) {
      return {};
    }
  }
  return bytes;
}

std::vector<std::byte> EncodeBlob(uint32_t magic,
                                  std::span<const std::byte> content) {
  std::vector<std::byte> blob(kBlobHeaderSize + content.size());
  Store32(blob, 0, magic);
  Store32(blob, 4, blob.size());
  Copy(content, blob, kBlobHeaderSize);
  return blob;
}

std::vector<std::byte> EncodeSuperBlob(
    const std::map<uint32_t, std::vector<std::byte>>& blobs) {
  // The count, then slot and offset of each blob.
  std::vector<std::byte> content(4 + 8 * blobs.size());
  Store32(content, 0, blobs.size());
  size_t entry = 4;
  for (const auto& [slot, blob] : blobs) {
    Store32(content, entry, slot);
    Store32(content, entry + 4, kBlobHeaderSize + content.size());
    entry += 8;
    content.insert(content.end(), blob.begin(), blob.end());
  }
  return EncodeBlob(kEmbeddedSignatureMagic, content);
}

}  // namespace zu::platform
