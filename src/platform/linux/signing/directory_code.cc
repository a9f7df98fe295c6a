#include "platform/linux/signing/directory_code.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "platform/code_signing.h"
#include "platform/linux/property_list.h"
#include "platform/linux/signing/file_content.h"
#include "platform/linux/signing/macho/macho_layout.h"
#include "platform/linux/signing/status.h"

namespace zu::platform {
namespace {

using Bytes = std::vector<std::byte>;
using ByteSpan = std::span<const std::byte>;

// Far more than any has; what a hostile file can make us allocate is the
// smaller of this and the file.
constexpr uint64_t kMaxSignatureBytes = 256 << 20;
constexpr uint64_t kMaxInfoDictionarySize = 64 << 20;

constexpr CheckResult kUnreadable{kCodeSigningNotVerifiable,
                                  "the file cannot be read"};
constexpr CheckResult kUnsigned{kCodeSigningUnsigned, "not signed"};
constexpr CheckResult kMalformed{kCodeSigningSignatureInvalid,
                                 "the signature is broken"};

bool Contains(const std::vector<Bytes>& list, ByteSpan value) {
  return std::any_of(list.begin(), list.end(), [&](const Bytes& bytes) {
    return std::equal(bytes.begin(), bytes.end(), value.begin(), value.end());
  });
}

// The first version of the attribute: { cdhashes: [data, ...] }, each cut to
// the length of a SHA-1 digest. Absent when it is something else.
std::optional<std::vector<Bytes>> ParseDirectoryDigestList(ByteSpan bytes) {
  const std::optional<PropertyList> list = PropertyList::Parse(bytes);
  if (!list) return std::nullopt;
  const auto digests = list->root().Find("cdhashes");
  if (!digests || digests->type() != PropertyList::Type::kArray) {
    return std::nullopt;
  }
  std::vector<Bytes> values;
  for (size_t i = 0; i < digests->size(); ++i) {
    const auto data = digests->ItemAt(i).AsData();
    if (!data) return std::nullopt;
    values.emplace_back(data->begin(), data->end());
  }
  return values;
}

void AppendBigEndian(Bytes& bytes, uint32_t value) {
  bytes.resize(bytes.size() + sizeof(value));
  StoreInteger(std::span(bytes), bytes.size() - sizeof(value), value,
               ByteOrder::kBig);
}

// The files of a bundle that hold what a Mach-O file has inside, and the slots
// that they belong to there.
struct SignatureFile {
  const char* name;
  uint32_t slot;
  bool is_blob;  // Otherwise it is what a blob would wrap.
};
constexpr SignatureFile kSignatureFiles[] = {
    {"CodeDirectory", kDirectorySlot, true},
    {"CodeRequirements", kRequirementsSlot, true},
    {"CodeEntitlements", kEntitlementsSlot, true},
    {"CodeEntitlementDER", kDerEntitlementsSlot, true},
    {"CodeDirectory-1", kFirstAlternateSlot, true},
    {"CodeDirectory-2", kFirstAlternateSlot + 1, true},
    {"CodeSignature", kCmsSlot, false},
};

// Puts a bundle's files together as a Mach-O file has them. Empty: there is no
// directory.
Bytes AssembleSignature(const BundleLayout& bundle) {
  std::vector<std::pair<uint32_t, Bytes>> blobs;
  for (const SignatureFile& file : kSignatureFiles) {
    auto content = ReadRegularFile(bundle.signature_directory + "/" + file.name,
                                   kMaxInfoDictionarySize);
    if (!content) continue;
    Bytes blob;
    if (!file.is_blob) {
      AppendBigEndian(blob, kWrapperMagic);
      AppendBigEndian(blob,
                      static_cast<uint32_t>(content->size() + kBlobHeaderSize));
    }
    blob.insert(blob.end(), content->begin(), content->end());
    blobs.emplace_back(file.slot, std::move(blob));
  }
  if (blobs.empty() || blobs.front().first != kDirectorySlot) return {};

  Bytes bytes;
  size_t offset = 12 + 8 * blobs.size();
  size_t size = offset;
  for (const auto& [slot, blob] : blobs) size += blob.size();
  AppendBigEndian(bytes, kEmbeddedSignatureMagic);
  AppendBigEndian(bytes, static_cast<uint32_t>(size));
  AppendBigEndian(bytes, static_cast<uint32_t>(blobs.size()));
  for (const auto& [slot, blob] : blobs) {
    AppendBigEndian(bytes, slot);
    AppendBigEndian(bytes, static_cast<uint32_t>(offset));
    offset += blob.size();
  }
  for (const auto& [slot, blob] : blobs) {
    bytes.insert(bytes.end(), blob.begin(), blob.end());
  }
  return bytes;
}

CheckResult ParseSignature(Bytes bytes, EmbeddedSignature& signature) {
  switch (EmbeddedSignature::Parse(std::move(bytes), signature)) {
    case EmbeddedSignature::ParseResult::kOk:
      return {};
    case EmbeddedSignature::ParseResult::kUnsigned:
      return kUnsigned;
    case EmbeddedSignature::ParseResult::kMalformed:
      break;
  }
  return kMalformed;
}

}  // namespace

DirectoryCode DirectoryCode::FromSlice(int descriptor, const MachOSlice& slice,
                                       const BundleLayout* bundle) {
  DirectoryCode code;
  code.descriptor_ = descriptor;
  code.offset_ = slice.range.offset;
  if (!slice.signature) {
    code.found_ = kUnsigned;
    return code;
  }
  code.code_size_ = slice.signature->offset;
  if (slice.signature->size > kMaxSignatureBytes) {
    code.found_ = kMalformed;
    return code;
  }
  Bytes bytes(static_cast<size_t>(slice.signature->size));
  if (!ReadAt(descriptor, slice.range.offset + slice.signature->offset,
              bytes)) {
    code.found_ = kUnreadable;
    return code;
  }
  code.found_ = ParseSignature(std::move(bytes), code.signature_);
  if (!code.found_.good()) return code;

  if (bundle != nullptr) {
    if (!bundle->info_dictionary.empty()) {
      code.info_dictionary_ =
          ReadRegularFile(bundle->info_dictionary, kMaxInfoDictionarySize);
    }
  } else if (slice.info_dictionary &&
             slice.info_dictionary->size <= kMaxInfoDictionarySize) {
    Bytes section(static_cast<size_t>(slice.info_dictionary->size));
    if (!ReadAt(descriptor, slice.range.offset + slice.info_dictionary->offset,
                section)) {
      code.found_ = kUnreadable;
      return code;
    }
    code.info_dictionary_ = std::move(section);
  }
  return code;
}

DirectoryCode DirectoryCode::FromFiles(int descriptor,
                                       const BundleLayout& bundle) {
  DirectoryCode code;
  code.descriptor_ = descriptor;
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) {
    code.found_ = kUnreadable;
    return code;
  }
  code.code_size_ = static_cast<uint64_t>(status.st_size);
  Bytes bytes = AssembleSignature(bundle);
  code.found_ = bytes.empty()
                    ? kUnsigned
                    : ParseSignature(std::move(bytes), code.signature_);
  if (code.found_.good() && !bundle.info_dictionary.empty()) {
    code.info_dictionary_ =
        ReadRegularFile(bundle.info_dictionary, kMaxInfoDictionarySize);
  }
  return code;
}

CheckResult DirectoryCode::CheckComponents(const CryptoContext& context) const {
  const CodeDirectory& directory = signature_.best();
  for (uint32_t slot = 1; slot <= directory.special_slots; ++slot) {
    // Resources are a matter of their own. What the directory does not seal may
    // be there all the same: it does not count.
    if (slot == kResourcesSlot || directory.SpecialSlot(slot).empty()) continue;
    std::optional<ByteSpan> data;
    if (slot == kInfoSlot) {
      if (info_dictionary_) data = *info_dictionary_;
    } else if (const auto found = signature_.components.find(slot);
               found != signature_.components.end()) {
      data = found->second;
    }
    if (data && MatchesSlot(context, directory, slot, *data)) continue;
    if (slot == kInfoSlot) {
      return {kCodeSigningInfoDictionaryFailed,
              "the information dictionary is not the signed one"};
    }
    return {kCodeSigningSignatureFailed,
            "a part of the signature is missing or not the signed one"};
  }
  return {};
}

CheckResult DirectoryCode::CheckCode(const CryptoContext& context) const {
  const CodeDirectory& directory = signature_.best();
  if (directory.code_limit != code_size_) {
    return {kCodeSigningSignatureFailed,
            "the signature is about code of another size"};
  }
  switch (VerifyPages(context, descriptor_, offset_, directory)) {
    case PagesResult::kGood:
      return {};
    case PagesResult::kDamaged:
      return {kCodeSigningSignatureFailed, "the code is not what was signed"};
    case PagesResult::kUnreadable:
      break;
  }
  return kUnreadable;
}

// The message is about the first directory. What else there is was signed only
// if an attribute of the message names it; the newer of the two counts.
CheckResult DirectoryCode::CheckDirectories(
    const CryptoContext& context, const SignedMessage& message) const {
  constexpr CheckResult kWrong{kCodeSigningSignatureFailed,
                               "a code directory is not the signed one"};
  const CodeDirectory& first = signature_.directories.front();
  if (!message.VerifyContent(DigestOf(first.bytes, message.digest()))) {
    return kWrong;
  }
  if (message.has_broken_directory_digests()) return kWrong;
  const auto& named = message.directory_digests();
  std::optional<std::vector<Bytes>> listed;
  if (named.empty() && message.directory_digest_list()) {
    listed = ParseDirectoryDigestList(*message.directory_digest_list());
    if (!listed) return kWrong;
  }
  const bool has_attribute = !named.empty() || listed;
  // One that was taken away would leave a weaker one to decide.
  if (has_attribute && (listed ? listed->size() : named.size()) !=
                           signature_.directories.size()) {
    return kWrong;
  }
  for (const CodeDirectory& directory : signature_.directories) {
    if (!has_attribute && &directory == &first) continue;
    const bool is_signed =
        listed
            ? Contains(*listed, CdHash(context, directory))
            : std::any_of(named.begin(), named.end(), [&](const auto& entry) {
                return entry.nid == DigestNid(directory.hash) &&
                       entry.value ==
                           HashOf(context, directory.hash, directory.bytes);
              });
    if (!is_signed) return kWrong;
  }
  return {};
}

}  // namespace zu::platform
