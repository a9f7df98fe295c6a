#include "platform/linux/signing/elf/elf_signature.h"

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

}  // namespace

bool IsElf(std::span<const std::byte> head) {
  static constexpr std::array kElfMagic = {std::byte{0x7f}, std::byte{'E'},
                                           std::byte{'L'}, std::byte{'F'}};
  return head.size() >= kElfMagic.size() &&
         std::equal(kElfMagic.begin(), kElfMagic.end(), head.begin());
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

SignatureLayout ReadSignatureLayout(int descriptor) {
  using State = SignatureLayout::State;
  struct stat status {};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
    return {State::kUnreadable};
  }
  const auto file_size = static_cast<uint64_t>(status.st_size);
  std::array<std::byte, kSignatureTrailerSize> buffer;
  const std::span<std::byte> bytes = std::span(buffer).first(
      static_cast<size_t>(std::min<uint64_t>(file_size, buffer.size())));
  if (!ReadAt(descriptor, 0, bytes)) return {State::kUnreadable};
  if (!IsElf(bytes)) return {State::kNotElf};
  if (!ReadAt(descriptor, file_size - bytes.size(), bytes)) {
    return {State::kUnreadable};
  }
  return ParseSignatureTrailer(bytes, file_size);
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
