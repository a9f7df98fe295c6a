// The end of a signed file, as that of an ELF file and of a script: 8 bytes of
// file size, then the file's end.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/linux/signing/appended/appended_signature.h"

namespace zu::platform {
namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

void ParseScript(std::span<const std::byte> tail, uint64_t file_size) {
  const SignatureLayout layout = ParseScriptSignature(tail, file_size);
  Require(layout.format == AppendedFormat::kScript);
  if (layout.state != SignatureLayout::State::kSigned) {
    Require(layout.signature_size == 0);
    return;
  }
  const size_t size = ScriptBlockSize(layout.signature_size);
  Require(layout.signature_size > 0 && size < tail.size());
  Require(layout.content_size + size == file_size);
  // There is one way only to write a block.
  const std::string_view block(
      reinterpret_cast<const char*>(tail.last(size).data()), size);
  const auto signature = DecodeScriptBlock(block);
  Require(signature && signature->size() == layout.signature_size);
  Require(EncodeScriptBlock(*signature) == block);
}

void Parse(std::span<const std::byte> input) {
  uint64_t file_size = 0;
  if (input.size() < sizeof(file_size)) return;
  std::memcpy(&file_size, input.data(), sizeof(file_size));
  const auto tail = input.subspan(sizeof(file_size));
  ParseScript(tail, file_size);
  const SignatureLayout layout = ParseSignatureTrailer(tail, file_size);
  switch (layout.state) {
    case SignatureLayout::State::kSigned: {
      Require(layout.signature_size > 0);
      Require(layout.signature_size <= kMaxSignatureSize);
      Require(layout.content_size + layout.signature_size +
                  kSignatureTrailerSize ==
              file_size);
      // There is one way only to write a trailer.
      const auto encoded = EncodeSignatureTrailer(layout.signature_size);
      Require(std::memcmp(tail.last(encoded.size()).data(), encoded.data(),
                          encoded.size()) == 0);
      break;
    }
    case SignatureLayout::State::kUnsigned:
      Require(layout.content_size == file_size);
      break;
    default:
      Require(layout.content_size == 0 && layout.signature_size == 0);
  }
}

}  // namespace
}  // namespace zu::platform

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zu::platform::Parse(std::as_bytes(std::span(data, size)));
  return 0;
}
