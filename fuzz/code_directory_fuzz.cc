// The signature inside a Mach-O slice, with every hash that it holds.

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "platform/linux/signing/macho/code_directory.h"

namespace zu::platform {
namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

unsigned Touch(std::span<const std::byte> bytes) {
  unsigned sum = 0;
  for (const std::byte byte : bytes) sum += std::to_integer<unsigned>(byte);
  return sum;
}

void TouchAll(const CodeDirectory& directory) {
  Require(directory.hash_size == HashSize(directory.hash));
  unsigned sum = 0;
  for (uint32_t i = 0; i < directory.code_slots; ++i) {
    sum += Touch(directory.CodeSlot(i));
  }
  for (uint32_t i = 0; i <= directory.special_slots; ++i) {
    sum += Touch(directory.SpecialSlot(i));
  }
  Require(directory.SpecialSlot(directory.special_slots + 1).empty());
  [[maybe_unused]] const volatile unsigned keep = sum;
}

void Parse(std::span<const std::byte> input) {
  if (const auto directory = ParseCodeDirectory(input)) TouchAll(*directory);
  EmbeddedSignature signature;
  if (EmbeddedSignature::Parse({input.begin(), input.end()}, signature) !=
      EmbeddedSignature::ParseResult::kOk) {
    return;
  }
  std::for_each(signature.directories.begin(), signature.directories.end(),
                &TouchAll);
  TouchAll(signature.best());
  (void)Touch(signature.cms);
  for (const auto& [slot, blob] : signature.components) (void)Touch(blob);
}

}  // namespace
}  // namespace zu::platform

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zu::platform::Parse(std::as_bytes(std::span(data, size)));
  return 0;
}
