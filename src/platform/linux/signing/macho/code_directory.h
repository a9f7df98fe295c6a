// The signature inside a Mach-O slice: a directory of hashes, perhaps in
// several versions, what it seals, and a CMS message about it.
#ifndef ZU_PLATFORM_LINUX_SIGNING_MACHO_CODE_DIRECTORY_H_
#define ZU_PLATFORM_LINUX_SIGNING_MACHO_CODE_DIRECTORY_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/signing/crypto_context.h"

namespace zu::platform {

enum class CodeHash : uint8_t {
  kSha1 = 1,
  kSha256 = 2,
  kSha256Truncated = 3,  // 20 bytes.
  kSha384 = 4,
};

// How many bytes a directory keeps of such a hash; 0 for an unknown one.
uint8_t HashSize(CodeHash hash);
// The digest algorithm, as a libcrypto NID; NID_undef for an unknown one.
int DigestNid(CodeHash hash);

// Special slots: what a directory seals beside the code.
inline constexpr uint32_t kInfoSlot = 1;
inline constexpr uint32_t kRequirementsSlot = 2;
inline constexpr uint32_t kResourcesSlot = 3;
inline constexpr uint32_t kEntitlementsSlot = 5;
inline constexpr uint32_t kDerEntitlementsSlot = 7;

// Flags of a directory.
inline constexpr uint32_t kAdHocFlag = 0x2;

// One directory, over bytes that its owner keeps.
struct CodeDirectory {
  std::span<const std::byte> bytes;  // The whole blob: what gets signed.
  uint32_t version = 0;
  uint32_t flags = 0;
  CodeHash hash = CodeHash::kSha256;
  uint8_t hash_size = 0;
  uint64_t code_limit = 0;  // How much of the slice is covered.
  uint64_t page_size = 0;   // 0: the code is one page.
  uint32_t code_slots = 0;
  uint32_t special_slots = 0;
  std::string identifier;
  std::optional<std::string> team;

  bool is_ad_hoc() const { return (flags & kAdHocFlag) != 0; }
  // The hash of page `index` < code_slots.
  std::span<const std::byte> CodeSlot(uint32_t index) const;
  // The hash in a special slot; empty when the slot is not there or all zero,
  // which means that nothing is sealed there.
  std::span<const std::byte> SpecialSlot(uint32_t slot) const;

  size_t hash_offset = 0;  // Of code slot 0 in `bytes`.
};

// Pure; absent when the blob breaks the format: every offset and count is
// checked, so the accessors need not.
std::optional<CodeDirectory> ParseCodeDirectory(
    std::span<const std::byte> blob);

// Moves, but is not copied: its parts point into its bytes.
struct EmbeddedSignature {
  EmbeddedSignature() = default;
  EmbeddedSignature(EmbeddedSignature&&) = default;
  EmbeddedSignature& operator=(EmbeddedSignature&&) = default;

  enum class ParseResult { kOk, kUnsigned, kMalformed };

  // Takes the bytes that a slice's signature command names. When they are
  // malformed, `cms` is all that may be asked for: what could be found of it.
  static ParseResult Parse(std::vector<std::byte> bytes,
                           EmbeddedSignature& signature);

  // The first directory, which the CMS message signs, then the alternates.
  std::vector<CodeDirectory> directories;
  // The one with the best hash, which the code is checked against.
  const CodeDirectory& best() const;
  // The CMS message without its blob header; empty when there is none.
  std::span<const std::byte> cms;
  // Whole blobs by special slot (requirements, entitlements, ...).
  std::map<uint32_t, std::span<const std::byte>> components;

  std::vector<std::byte> bytes;  // What all of this points into.
};

// The digest that `hash` names, whole (not cut to 20 bytes), over `data`.
std::vector<std::byte> HashOf(const CryptoContext& context, CodeHash hash,
                              std::span<const std::byte> data);
// Whether `data` has the hash that `slot` holds.
[[nodiscard]] bool MatchesSlot(const CryptoContext& context,
                               const CodeDirectory& directory, uint32_t slot,
                               std::span<const std::byte> data);
// What code is known by: the directory's own digest, cut to 20 bytes.
std::vector<std::byte> CdHash(const CryptoContext& context,
                              const CodeDirectory& directory);

enum class PagesResult { kGood, kDamaged, kUnreadable };

// Hashes the code from `slice_offset` of an open file on, page by page, and
// compares. Large files are hashed by two threads.
PagesResult VerifyPages(const CryptoContext& context, int descriptor,
                        uint64_t slice_offset, const CodeDirectory& directory);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_MACHO_CODE_DIRECTORY_H_
