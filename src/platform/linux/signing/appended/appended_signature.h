// Signatures at the end of a file: of ELF files and of scripts.
//
// A signed ELF file ends, as a signed kernel module does, with the signature,
// an information block of 12 bytes and a line of text:
//
//   content | CMS signature | 0 0 2 0 0 0 0 0, size of the CMS, big-endian |
//   "~Module signature appended~\n"
//
// Nothing in an ELF header refers to what follows the last section, so the
// file runs as before, and tools that rewrite it (strip) drop the signature
// whole.
//
// A signed script, a file that starts with "#!", ends with comments:
//
//   content, which ends in "\n" |
//   # -----BEGIN CMS-----
//   # the CMS signature in base64, 64 characters a line but for the last
//   # -----END CMS-----
//
// All of the content is signed, in both.
#ifndef ZU_PLATFORM_LINUX_SIGNING_APPENDED_APPENDED_SIGNATURE_H_
#define ZU_PLATFORM_LINUX_SIGNING_APPENDED_APPENDED_SIGNATURE_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zu::platform {

inline constexpr std::string_view kSignatureMagic =
    "~Module signature appended~\n";
inline constexpr size_t kSignatureInfoSize = 12;
inline constexpr size_t kSignatureTrailerSize =
    kSignatureInfoSize + kSignatureMagic.size();
inline constexpr uint32_t kMaxSignatureSize = 1 << 20;

// The block of comments in a script.
inline constexpr std::string_view kBlockBegin = "# -----BEGIN CMS-----\n";
inline constexpr std::string_view kBlockEnd = "# -----END CMS-----\n";
inline constexpr std::string_view kBlockLineStart = "# ";
inline constexpr size_t kBlockLineLength = 64;  // Characters of base64.

// How long the block of a signature is.
constexpr size_t ScriptBlockSize(size_t signature_size) {
  const size_t characters = (signature_size + 2) / 3 * 4;
  const size_t lines = (characters + kBlockLineLength - 1) / kBlockLineLength;
  return kBlockBegin.size() + characters +
         lines * (kBlockLineStart.size() + 1) + kBlockEnd.size();
}
// A parser needs so much of a file's end, to see also what precedes a block.
inline constexpr size_t kMaxScriptTailSize =
    1 + ScriptBlockSize(kMaxSignatureSize);

enum class AppendedFormat { kElf, kScript };

struct SignatureLayout {
  enum class State {
    kUnreadable,
    kNeither,    // Neither ELF nor a script.
    kUnsigned,   // It does not end as a signed file does.
    kMalformed,  // It does, but what stands before that breaks the format.
    kSigned,
  };
  State state = State::kUnreadable;
  // What a signature covers, or would cover: all of an unsigned file. In a
  // signed one it is where the signature, or its block, starts. Otherwise 0.
  uint64_t content_size = 0;
  uint32_t signature_size = 0;  // Of the CMS; 0 when there is none.
  AppendedFormat format = AppendedFormat::kElf;
};

// The format of a file that starts like this; absent when it has neither.
std::optional<AppendedFormat> FormatOf(std::span<const std::byte> head);

// Finds the signature of an ELF file. `tail` is the file's last
// kSignatureTrailerSize bytes (or more, or all of a shorter file).
SignatureLayout ParseSignatureTrailer(std::span<const std::byte> tail,
                                      uint64_t file_size);

// Finds the signature of a script. `tail` is the file's last
// kMaxScriptTailSize bytes, or all of a shorter file.
SignatureLayout ParseScriptSignature(std::span<const std::byte> tail,
                                     uint64_t file_size);

// The layout of an open file, which has to be a regular one.
SignatureLayout ReadSignatureLayout(int descriptor);

// The CMS signature of an open file with this layout, whose state is kSigned.
// Absent when it cannot be read or is no longer there.
std::optional<std::vector<std::byte>> ReadAppendedSignature(
    int descriptor, const SignatureLayout& layout);

// What follows a signature of this size, which is at most kMaxSignatureSize.
std::array<std::byte, kSignatureTrailerSize> EncodeSignatureTrailer(
    uint32_t signature_size);

// The comments that hold a signature, and the other way round: absent when the
// text is not letter for letter what EncodeScriptBlock makes.
std::string EncodeScriptBlock(std::span<const std::byte> signature);
std::optional<std::vector<std::byte>> DecodeScriptBlock(std::string_view block);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_APPENDED_APPENDED_SIGNATURE_H_
