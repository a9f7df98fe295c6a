#include "platform/linux/signing/signer/macho_signer.h"

#include <openssl/objects.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <map>
#include <utility>

#include "platform/linux/signing/file_content.h"
#include "platform/linux/signing/macho/macho_image.h"
#include "platform/linux/signing/macho/macho_layout.h"
#include "platform/linux/signing/signer/code_directory_writer.h"
#include "platform/linux/signing/signer/file_rewriter.h"

namespace zu::platform {
namespace {

using Bytes = std::vector<std::byte>;

constexpr uint64_t kSignatureAlignment = 16;
// The signature's size is signed, so it is fixed before the CMS message is
// made: enough for a chain and a timestamp with its own.
constexpr size_t kReservedForCms = 18000;
constexpr uint64_t kMainProgram = 1;
constexpr uint64_t kMax32 = std::numeric_limits<uint32_t>::max();

uint64_t RoundUp(uint64_t value, uint64_t alignment) {
  return (value + alignment - 1) / alignment * alignment;
}

uint8_t PageShift(uint32_t cpu_type) {
  return cpu_type == kCpuTypeArm64 ? 14 : 12;
}

// Where a slice has what signing changes or asks about.
struct Anatomy {
  MachOHeader header;
  // Offsets of commands; 0 when there is none.
  size_t signature_command = 0;
  size_t linkedit_command = 0;
  const SegmentLayout* linkedit_layout = nullptr;
  uint64_t linkedit_offset = 0;
  FileRange text;
  // Where the first section's data lies: so far the load commands can grow.
  uint64_t first_data = kMax32;

  size_t commands_end() const { return header.size() + header.commands_size; }
};

// For an image whose load commands have been parsed already.
Anatomy Dissect(const Bytes& image) {
  Anatomy anatomy;
  anatomy.header = *ParseMachOHeader(image);
  (void)VisitLoadCommands(
      anatomy.header, image,
      [&](uint32_t type, std::span<const std::byte> command) {
        const auto offset = static_cast<size_t>(command.data() - image.data());
        if (type == kSignatureCommand) anatomy.signature_command = offset;
        if (type != kSegmentCommand32 && type != kSegmentCommand64) return true;
        const SegmentLayout& layout =
            type == kSegmentCommand64 ? kSegment64 : kSegment32;
        const Segment segment =
            *ParseSegment(layout, anatomy.header.order, command);
        if (segment.name == "__TEXT") {
          anatomy.text = {segment.file_offset, segment.file_size};
        } else if (segment.name == "__LINKEDIT") {
          anatomy.linkedit_command = offset;
          anatomy.linkedit_layout = &layout;
          anatomy.linkedit_offset = segment.file_offset;
        }
        for (const Section& section : segment.sections) {
          if (section.offset != 0 && section.size != 0) {
            anatomy.first_data =
                std::min<uint64_t>(anatomy.first_data, section.offset);
          }
        }
        if (segment.file_offset != 0 && segment.file_size != 0) {
          anatomy.first_data =
              std::min(anatomy.first_data, segment.file_offset);
        }
        return true;
      });
  return anatomy;
}

// Writes where the signature lies, and lets __LINKEDIT reach to its end.
void StoreSignaturePlace(const Anatomy& anatomy, Bytes& image,
                         uint32_t signature_size) {
  const ByteOrder order = anatomy.header.order;
  const auto store32 = [&](size_t offset, size_t value) {
    StoreInteger(std::span(image), offset, static_cast<uint32_t>(value), order);
  };
  size_t command = anatomy.signature_command;
  if (command == 0) {
    command = anatomy.commands_end();
    store32(MachOHeader::kCommandCountOffset, anatomy.header.command_count + 1);
    store32(MachOHeader::kCommandsSizeOffset,
            anatomy.header.commands_size + kSignatureCommandSize);
  }
  store32(command, kSignatureCommand);
  store32(command + 4, kSignatureCommandSize);
  store32(command + 8, image.size());
  store32(command + 12, signature_size);

  const SegmentLayout& layout = *anatomy.linkedit_layout;
  const auto store_word = [&](size_t field, uint64_t value) {
    const size_t offset = anatomy.linkedit_command + field;
    if (layout.is_64) {
      StoreInteger(std::span(image), offset, value, order);
    } else {
      store32(offset, value);
    }
  };
  const uint64_t size = image.size() + signature_size - anatomy.linkedit_offset;
  store_word(layout.file_size, size);
  store_word(layout.vm_size,
             RoundUp(size, uint64_t{1} << PageShift(anatomy.header.cpu_type)));
}

std::optional<std::string> TeamOf(X509& certificate) {
  const X509_NAME* const name = X509_get_subject_name(&certificate);
  const int index =
      X509_NAME_get_index_by_NID(name, NID_organizationalUnitName, -1);
  if (index < 0) return std::nullopt;
  const ASN1_STRING* const value =
      X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index));
  const std::string team(
      reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
      static_cast<size_t>(ASN1_STRING_length(value)));
  constexpr size_t kTeamSize = 10;
  const bool is_team =
      team.size() == kTeamSize &&
      std::all_of(team.begin(), team.end(), [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
      });
  return is_team ? std::optional(team) : std::nullopt;
}

// What the CMS message says about all directories, when one is not the whole
// story.
void AddDirectoryDigests(const CryptoContext& context,
                         std::span<const CodeHash> hashes,
                         std::span<const Bytes> directories,
                         CmsOptions& options) {
  constexpr size_t kCdHashSize = 20;
  std::string list =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n<dict>\n\t<key>cdhashes</key>\n\t<array>\n";
  for (size_t i = 0; i < directories.size(); ++i) {
    Bytes digest = HashOf(context, hashes[i], directories[i]);
    std::array<unsigned char, 32> text;  // 28 characters and a NUL.
    const int size = EVP_EncodeBlock(
        text.data(), reinterpret_cast<const unsigned char*>(digest.data()),
        static_cast<int>(std::min(digest.size(), kCdHashSize)));
    list.append("\t\t<data>")
        .append(reinterpret_cast<const char*>(text.data()),
                static_cast<size_t>(size))
        .append("</data>\n");
    options.directory_digests.push_back(
        {DigestNid(hashes[i]), std::move(digest)});
  }
  list += "\t</array>\n</dict>\n</plist>\n";
  const auto bytes = std::as_bytes(std::span(list));
  options.directory_digest_list.emplace(bytes.begin(), bytes.end());
}

class SliceSigner {
 public:
  SliceSigner(const CryptoContext& context, const MachOSignOptions& options,
              std::string identifier)
      : context_(context), options_(options) {
    content_.identifier = std::move(identifier);
    content_.team = options.team;
    if (!content_.team && options.identity != nullptr) {
      content_.team = TeamOf(*options.identity->leaf);
    }
    content_.flags = options.flags |
                     (options.identity == nullptr ? kAdHocFlag : uint32_t{0});
    // No requirements of its own, which is said by an empty list of them.
    components_[kRequirementsSlot] =
        EncodeBlob(kRequirementsMagic, std::array<std::byte, 4>{});
    if (options.entitlements) {
      components_[kEntitlementsSlot] =
          EncodeBlob(kEntitlementsMagic, *options.entitlements);
    }
    if (options.der_entitlements) {
      components_[kDerEntitlementsSlot] =
          EncodeBlob(kDerEntitlementsMagic, *options.der_entitlements);
    }
    content_.sealed = components_;
    if (options.info_dictionary) {
      content_.sealed[kInfoSlot] = *options.info_dictionary;
    }
    if (options.resources) {
      content_.sealed[kResourcesSlot] = *options.resources;
    }
  }

  // Turns the slice into a signed one.
  SignResult Sign(const MachOSlice& slice, Bytes& image, std::string& error) {
    const Anatomy anatomy = Dissect(image);
    if (anatomy.linkedit_command == 0) {
      error = "has no __LINKEDIT segment";
      return SignResult::kRefused;
    }
    if (anatomy.signature_command == 0 &&
        anatomy.commands_end() + kSignatureCommandSize > anatomy.first_data) {
      error = "has no room for another load command";
      return SignResult::kRefused;
    }
    if (slice.signature) {
      if (slice.signature->offset + slice.signature->size != image.size()) {
        error = "has data behind its signature";
        return SignResult::kRefused;
      }
      image.resize(static_cast<size_t>(slice.signature->offset));
    }
    image.resize(
        static_cast<size_t>(RoundUp(image.size(), kSignatureAlignment)));
    DirectoryContent content = content_;
    content.page_shift = PageShift(anatomy.header.cpu_type);
    content.executable_segment = anatomy.text;
    if (anatomy.header.file_type == kExecutableType) {
      content.executable_segment_flags = kMainProgram;
    }
    if (!options_.info_dictionary && slice.info_dictionary) {
      const auto place = image.begin() + static_cast<std::ptrdiff_t>(
                                             slice.info_dictionary->offset);
      content.sealed[kInfoSlot] = Bytes(
          place,
          place + static_cast<std::ptrdiff_t>(slice.info_dictionary->size));
    }
    const uint64_t signature_size = SignatureSize(content, image.size());
    if (image.size() + signature_size > kMax32 ||
        anatomy.linkedit_offset > image.size()) {
      error = "is too large, or __LINKEDIT lies outside";
      return SignResult::kRefused;
    }
    StoreSignaturePlace(anatomy, image, static_cast<uint32_t>(signature_size));
    const std::optional<Bytes> signature =
        MakeSignature(std::move(content), image, error);
    if (!signature) return SignResult::kFailed;
    if (signature->size() > signature_size) {
      error = "the CMS message is too large";
      return SignResult::kFailed;
    }
    const size_t end = image.size() + static_cast<size_t>(signature_size);
    image.insert(image.end(), signature->begin(), signature->end());
    image.resize(end);
    return SignResult::kSigned;
  }

 private:
  // All blobs but the directories and the CMS message's content are known.
  uint64_t SignatureSize(DirectoryContent& content, uint64_t code_size) const {
    auto blobs = components_;
    blobs[kCmsSlot] = EncodeBlob(kWrapperMagic, {});
    uint64_t size = options_.identity != nullptr ? kReservedForCms : 0;
    for (uint32_t i = 0; i < options_.hashes.size(); ++i) {
      blobs[SlotOf(i)];
      content.hash = options_.hashes[i];
      size += CodeDirectorySize(content, code_size);
    }
    return RoundUp(size + EncodeSuperBlob(blobs).size(), kSignatureAlignment);
  }

  std::optional<Bytes> MakeSignature(DirectoryContent content,
                                     std::span<const std::byte> code,
                                     std::string& error) const {
    std::vector<Bytes> directories;
    for (const CodeHash hash : options_.hashes) {
      content.hash = hash;
      directories.push_back(EncodeCodeDirectory(context_, content, code));
      if (directories.back().empty()) {
        error = "libcrypto cannot hash";
        return std::nullopt;
      }
    }
    Bytes cms;
    if (options_.identity != nullptr) {
      CmsOptions cms_options = options_.cms;
      if (directories.size() > 1) {
        AddDirectoryDigests(context_, options_.hashes, directories,
                            cms_options);
      }
      auto made =
          CreateCms(*options_.identity,
                    HashOf(context_, CodeHash::kSha256, directories.front()),
                    cms_options, error);
      if (!made) return std::nullopt;
      cms = std::move(*made);
    }
    auto blobs = components_;
    blobs[kCmsSlot] = EncodeBlob(kWrapperMagic, cms);
    for (uint32_t i = 0; i < directories.size(); ++i) {
      blobs[SlotOf(i)] = std::move(directories[i]);
    }
    return EncodeSuperBlob(blobs);
  }

  static uint32_t SlotOf(uint32_t directory) {
    return directory == 0 ? kDirectorySlot
                          : kFirstAlternateSlot + directory - 1;
  }

  const CryptoContext& context_;
  const MachOSignOptions& options_;
  DirectoryContent content_;  // What all slices have in common.
  std::map<uint32_t, Bytes> components_;
};

}  // namespace

std::optional<std::vector<std::byte>> EncodeUniversal(
    std::span<const UniversalSlice> slices, bool is_64) {
  const UniversalEntryLayout& layout =
      is_64 ? kUniversalEntry64 : kUniversalEntry32;
  Bytes file(kUniversalHeaderSize + slices.size() * layout.size);
  const auto store32 = [&](size_t offset, size_t value) {
    StoreInteger(std::span(file), offset, static_cast<uint32_t>(value),
                 ByteOrder::kBig);
  };
  store32(0, is_64 ? kUniversalMagic64 : kUniversalMagic);
  store32(4, slices.size());
  size_t entry = kUniversalHeaderSize;
  for (const UniversalSlice& slice : slices) {
    file.resize(static_cast<size_t>(
        RoundUp(file.size(), uint64_t{1} << slice.alignment_shift)));
    const auto store_word = [&](size_t offset, size_t value) {
      if (is_64) {
        StoreInteger(std::span(file), offset, uint64_t{value}, ByteOrder::kBig);
      } else {
        store32(offset, value);
      }
    };
    store32(entry, slice.cpu_type);
    store32(entry + 4, slice.cpu_subtype);
    store_word(entry + kUniversalRangeOffset, file.size());
    store_word(entry + layout.range_size, slice.content.size());
    store32(entry + layout.alignment, slice.alignment_shift);
    entry += layout.size;
    file.insert(file.end(), slice.content.begin(), slice.content.end());
    if (!is_64 && file.size() > kMax32) return std::nullopt;
  }
  return file;
}

SignResult SignMachO(const std::string& path, const MachOSignOptions& options,
                     std::string& error) {
  const ScopedErrorMark mark;
  const auto fail = [&](SignResult result, const std::string& why) {
    error = path + ": " + why;
    return result;
  };
  const auto fail_by_system = [&] {
    return fail(SignResult::kFailed, std::strerror(errno));
  };
  const std::shared_ptr<const CryptoContext> context =
      options.identity != nullptr ? options.identity->context
                                  : CryptoContext::Create();
  if (!context) return fail(SignResult::kFailed, "libcrypto does not start");
  if (options.hashes.empty() ||
      options.hashes.size() > kLastAlternateSlot - kFirstAlternateSlot + 2) {
    return fail(SignResult::kRefused, "needs one to six directories");
  }
  std::optional<FileRewriter> rewriter = FileRewriter::Open(path);
  if (!rewriter) return fail_by_system();
  std::vector<MachOSlice> slices;
  switch (ReadMachO(rewriter->original(), slices)) {
    case MachOResult::kUnreadable:
      return fail(SignResult::kFailed, "cannot be read");
    case MachOResult::kNotMachO:
      return fail(SignResult::kRefused, "not a Mach-O file");
    case MachOResult::kMalformed:
      return fail(SignResult::kRefused, "a broken Mach-O file");
    case MachOResult::kOk:
      break;
  }
  SliceSigner signer(*context, options,
                     options.identifier.empty()
                         ? path.substr(path.rfind('/') + 1)
                         : options.identifier);
  std::vector<UniversalSlice> signed_slices;
  for (const MachOSlice& slice : slices) {
    if (slice.signature && !options.replace) {
      return fail(SignResult::kRefused, "signed already");
    }
    const auto cpu_type = static_cast<uint32_t>(slice.cpu_type);
    constexpr uint32_t kMaxAlignment = 16;
    UniversalSlice made{
        cpu_type, static_cast<uint32_t>(slice.cpu_subtype),
        std::clamp<uint32_t>(slice.alignment_shift, PageShift(cpu_type),
                             kMaxAlignment),
        Bytes(static_cast<size_t>(slice.range.size))};
    if (!ReadAt(rewriter->original(), slice.range.offset, made.content)) {
      return fail_by_system();
    }
    std::string why;
    const SignResult result = signer.Sign(slice, made.content, why);
    if (result != SignResult::kSigned) return fail(result, why);
    signed_slices.push_back(std::move(made));
  }
  std::array<std::byte, sizeof(uint32_t)> magic;
  if (!ReadAt(rewriter->original(), 0, magic)) return fail_by_system();
  const uint32_t kind = LoadBig32(magic, 0);
  std::optional<Bytes> file;
  if (kind == kUniversalMagic || kind == kUniversalMagic64) {
    file = EncodeUniversal(signed_slices, kind == kUniversalMagic64);
    if (!file) return fail(SignResult::kRefused, "is too large");
  } else {
    file = std::move(signed_slices.front().content);
  }
  if (!rewriter->Append(*file) || !rewriter->Commit()) return fail_by_system();
  return SignResult::kSigned;
}

}  // namespace zu::platform
