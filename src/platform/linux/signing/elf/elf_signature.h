// Where the signature of a signed ELF file lies.
//
// The file ends, as a signed kernel module does, with the signature, an
// information block of 12 bytes and a line of text:
//
//   content | CMS signature | 0 0 2 0 0 0 0 0, size of the CMS, big-endian |
//   "~Module signature appended~\n"
//
// All of the content is signed. Nothing in an ELF header refers to what
// follows the last section, so the file runs as before, and tools that rewrite
// it (strip) drop the signature whole.
#ifndef ZU_PLATFORM_LINUX_SIGNING_ELF_ELF_SIGNATURE_H_
#define ZU_PLATFORM_LINUX_SIGNING_ELF_ELF_SIGNATURE_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace zu::platform {

inline constexpr std::string_view kSignatureMagic =
    "~Module signature appended~\n";
inline constexpr size_t kSignatureInfoSize = 12;
inline constexpr size_t kSignatureTrailerSize =
    kSignatureInfoSize + kSignatureMagic.size();
inline constexpr uint32_t kMaxSignatureSize = 1 << 20;

struct SignatureLayout {
  enum class State {
    kUnreadable,
    kNotElf,
    kUnsigned,   // The magic text is not there.
    kMalformed,  // It is, but what stands before it breaks the format.
    kSigned,
  };
  State state = State::kUnreadable;
  // What a signature covers, or would cover: all of an unsigned file. In a
  // signed one it is where the signature starts. Otherwise 0.
  uint64_t content_size = 0;
  uint32_t signature_size = 0;  // 0 when there is none.
};

// True when a file that starts like this is an ELF file.
bool IsElf(std::span<const std::byte> head);

// Finds the signature of an ELF file. `tail` is the file's last
// kSignatureTrailerSize bytes (or more, or all of a shorter file).
SignatureLayout ParseSignatureTrailer(std::span<const std::byte> tail,
                                      uint64_t file_size);

// The layout of an open file, which has to be a regular one.
SignatureLayout ReadSignatureLayout(int descriptor);

// What follows a signature of this size, which is at most kMaxSignatureSize.
std::array<std::byte, kSignatureTrailerSize> EncodeSignatureTrailer(
    uint32_t signature_size);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_ELF_ELF_SIGNATURE_H_
