#include "platform/linux/signing/appended/appended_signature.h"

#include <openssl/evp.h>
#include <sys/stat.h>
#include <algorithm>
#include <cstring>

#include "platform/linux/signing/file_content.h"

namespace zu::platform {
namespace {

// The information block: algorithm, hash, identifier type, signer's name
// length, key identifier's length, three bytes of padding, signature size.
constexpr size_t kTypeOffset = 2;
constexpr size_t kSizeOffset = 8;
constexpr auto kTypePkcs7 = std::byte{2};

// All of the block but the size is the same in every file, since a CMS
// signature itself names its algorithms and signer.
constexpr std::array<std::byte, kSizeOffset> kFixedInfo = [] {
  std::array<std::byte, kSizeOffset> info{};
  info[kTypeOffset] = kTypePkcs7;
  return info;
}();

std::string_view AsText(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

const unsigned char* AsUnsigned(const void* bytes) {
  return static_cast<const unsigned char*>(bytes);
}

// Reads the file's last bytes, as many as `size` or all of a shorter file.
std::optional<std::vector<std::byte>> ReadTail(int descriptor,
                                               uint64_t file_size,
                                               size_t size) {
  std::vector<std::byte> tail(
      static_cast<size_t>(std::min<uint64_t>(file_size, size)));
  if (!ReadAt(descriptor, file_size - tail.size(), tail)) return std::nullopt;
  return tail;
}

}  // namespace

std::optional<AppendedFormat> FormatOf(std::span<const std::byte> head) {
  const std::string_view text = AsText(head);
  if (text.starts_with("\177ELF")) return AppendedFormat::kElf;
  if (text.starts_with("#!")) return AppendedFormat::kScript;
  return std::nullopt;
}

SignatureLayout ParseSignatureTrailer(std::span<const std::byte> tail,
                                      uint64_t file_size) {
  using State = SignatureLayout::State;
  if (tail.size() < kSignatureMagic.size() ||
      std::memcmp(tail.last(kSignatureMagic.size()).data(),
                  kSignatureMagic.data(), kSignatureMagic.size()) != 0) {
    return {State::kUnsigned, file_size};
  }
  if (tail.size() < kSignatureTrailerSize || file_size < tail.size()) {
    return {State::kMalformed};
  }
  const auto info =
      tail.last(kSignatureTrailerSize).first<kSignatureInfoSize>();
  if (!std::equal(kFixedInfo.begin(), kFixedInfo.end(), info.begin())) {
    return {State::kMalformed};
  }
  uint32_t signature_size = 0;
  for (const std::byte byte : info.subspan<kSizeOffset>()) {
    signature_size = signature_size << 8 | std::to_integer<uint32_t>(byte);
  }
  if (signature_size == 0 || signature_size > kMaxSignatureSize ||
      signature_size > file_size - kSignatureTrailerSize) {
    return {State::kMalformed};
  }
  return {State::kSigned, file_size - kSignatureTrailerSize - signature_size,
          signature_size};
}

SignatureLayout ParseScriptSignature(std::span<const std::byte> tail,
                                     uint64_t file_size) {
  using State = SignatureLayout::State;
  constexpr auto kFormat = AppendedFormat::kScript;
  const std::string_view text = AsText(tail);
  if (!text.ends_with(kBlockEnd)) {
    return {State::kUnsigned, file_size, 0, kFormat};
  }
  // The block's first line cannot be the file's, which starts with "#!".
  const size_t line_end = text.rfind("\n" + std::string(kBlockBegin));
  if (line_end == text.npos || tail.size() > file_size) {
    return {State::kMalformed, 0, 0, kFormat};
  }
  const std::string_view block = text.substr(line_end + 1);
  const auto signature = DecodeScriptBlock(block);
  if (!signature) return {State::kMalformed, 0, 0, kFormat};
  return {State::kSigned, file_size - block.size(),
          static_cast<uint32_t>(signature->size()), kFormat};
}

SignatureLayout ReadSignatureLayout(int descriptor) {
  using State = SignatureLayout::State;
  struct stat status {};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
    return {State::kUnreadable};
  }
  const auto file_size = static_cast<uint64_t>(status.st_size);
  std::array<std::byte, 4> buffer;
  const std::span<std::byte> head = std::span(buffer).first(
      static_cast<size_t>(std::min<uint64_t>(file_size, buffer.size())));
  if (!ReadAt(descriptor, 0, head)) return {State::kUnreadable};
  const std::optional<AppendedFormat> format = FormatOf(head);
  if (!format) return {State::kNeither};
  // What both formats end with is short, and most files have neither.
  std::optional<std::vector<std::byte>> tail =
      ReadTail(descriptor, file_size, kSignatureTrailerSize);
  if (!tail) return {State::kUnreadable};
  if (*format == AppendedFormat::kElf) {
    return ParseSignatureTrailer(*tail, file_size);
  }
  if (AsText(*tail).ends_with(kBlockEnd)) {
    tail = ReadTail(descriptor, file_size, kMaxScriptTailSize);
    if (!tail) return {State::kUnreadable};
  }
  return ParseScriptSignature(*tail, file_size);
}

std::optional<std::vector<std::byte>> ReadAppendedSignature(
    int descriptor, const SignatureLayout& layout) {
  const bool is_script = layout.format == AppendedFormat::kScript;
  std::vector<std::byte> bytes(is_script
                                   ? ScriptBlockSize(layout.signature_size)
                                   : layout.signature_size);
  if (!ReadAt(descriptor, layout.content_size, bytes)) return std::nullopt;
  if (is_script) return DecodeScriptBlock(AsText(bytes));
  return bytes;
}

std::string EncodeScriptBlock(std::span<const std::byte> signature) {
  // A line's worth of bytes at a time.
  constexpr size_t kBytesPerLine = kBlockLineLength / 4 * 3;
  std::string block(kBlockBegin);
  block.reserve(ScriptBlockSize(signature.size()));
  while (!signature.empty()) {
    const auto bytes =
        signature.first(std::min(signature.size(), kBytesPerLine));
    unsigned char line[kBlockLineLength + 1];
    const int length = EVP_EncodeBlock(line, AsUnsigned(bytes.data()),
                                       static_cast<int>(bytes.size()));
    block += kBlockLineStart;
    block.append(reinterpret_cast<const char*>(line),
                 static_cast<size_t>(length));
    block += '\n';
    signature = signature.subspan(bytes.size());
  }
  block += kBlockEnd;
  return block;
}

std::optional<std::vector<std::byte>> DecodeScriptBlock(
    std::string_view block) {
  if (!block.starts_with(kBlockBegin) || !block.ends_with(kBlockEnd) ||
      block.size() <= kBlockBegin.size() + kBlockEnd.size() ||
      block.size() > kMaxScriptTailSize) {
    return std::nullopt;
  }
  std::string_view lines = block.substr(
      kBlockBegin.size(), block.size() - kBlockBegin.size() - kBlockEnd.size());
  std::vector<std::byte> signature;
  while (!lines.empty()) {
    const size_t end = lines.find('\n');
    if (end == lines.npos || !lines.starts_with(kBlockLineStart)) {
      return std::nullopt;
    }
    std::string_view line = lines.substr(0, end);
    line.remove_prefix(kBlockLineStart.size());
    if (line.empty() || line.size() > kBlockLineLength) return std::nullopt;
    unsigned char bytes[kBlockLineLength];
    const int length = EVP_DecodeBlock(bytes, AsUnsigned(line.data()),
                                       static_cast<int>(line.size()));
    if (length <= 0) return std::nullopt;
    // Padding was decoded, too, as zeros.
    const size_t padding = line.size() - 1 - line.find_last_not_of('=');
    if (padding > static_cast<size_t>(length)) return std::nullopt;
    const auto* const start = reinterpret_cast<const std::byte*>(bytes);
    signature.insert(signature.end(), start,
                     start + length - static_cast<ptrdiff_t>(padding));
    lines.remove_prefix(end + 1);
  }
  // The decoder is generous (with white space, with bits that are lost, with
  // short lines). One way to write a signature is enough.
  if (signature.empty() || signature.size() > kMaxSignatureSize ||
      EncodeScriptBlock(signature) != block) {
    return std::nullopt;
  }
  return signature;
}

std::array<std::byte, kSignatureTrailerSize> EncodeSignatureTrailer(
    uint32_t signature_size) {
  std::array<std::byte, kSignatureTrailerSize> trailer{};
  auto out = std::copy(kFixedInfo.begin(), kFixedInfo.end(), trailer.begin());
  for (int shift = 24; shift >= 0; shift -= 8) {
    *out++ = static_cast<std::byte>(signature_size >> shift);
  }
  std::memcpy(&*out, kSignatureMagic.data(), kSignatureMagic.size());
  return trailer;
}

}  // namespace zu::platform
