#include "support/utf8.h"

#include <cstring>

namespace zu {
namespace {

constexpr uint64_t kHighBits = 0x8080808080808080;

constexpr bool IsSurrogate(uint32_t value) {
  return value >= 0xD800 && value <= 0xDFFF;
}

// The length of the character at the start of `text`, whose first byte is not
// ASCII; 0 when it is malformed.
size_t MultiByteLength(std::string_view text) {
  // By length: the payload of the first byte, and the least code point that
  // needs so many bytes.
  struct Form {
    uint32_t first_byte_mask;
    uint32_t least;
  };
  static constexpr Form kForms[] = {{0x1F, 0x80}, {0x0F, 0x800}, {7, 0x10000}};

  const auto first = static_cast<uint8_t>(text[0]);
  if (first < 0xC2 || first > 0xF4) return 0;
  const size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  if (text.size() < length) return 0;
  const Form& form = kForms[length - 2];
  uint32_t code_point = first & form.first_byte_mask;
  for (size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<uint8_t>(text[i]);
    if ((byte & 0xC0) != 0x80) return 0;
    code_point = code_point << 6 | (byte & 0x3F);
  }
  const bool valid = code_point >= form.least && code_point <= 0x10FFFF &&
                     !IsSurrogate(code_point);
  return valid ? length : 0;
}

char Byte(uint32_t value) { return static_cast<char>(value); }

// The last byte of a character's form, or an inner one after a shift.
char Continuation(uint32_t value) { return Byte(0x80 | (value & 0x3F)); }

}  // namespace

bool IsValidUtf8(std::string_view text) {
  while (!text.empty()) {
    // Tools print ASCII above all: eight bytes at a time.
    uint64_t block;
    while (text.size() >= sizeof block) {
      std::memcpy(&block, text.data(), sizeof block);
      if ((block & kHighBits) != 0) break;
      text.remove_prefix(sizeof block);
    }
    while (!text.empty() && static_cast<uint8_t>(text[0]) < 0x80) {
      text.remove_prefix(1);
    }
    while (!text.empty() && static_cast<uint8_t>(text[0]) >= 0x80) {
      const size_t length = MultiByteLength(text);
      if (length == 0) return false;
      text.remove_prefix(length);
    }
  }
  return true;
}

size_t CountUtf16Units(std::string_view text) {
  size_t units = 0;
  for (const char c : text) {
    const auto byte = static_cast<uint8_t>(c);
    units += (byte & 0xC0) != 0x80;
    units += byte >= 0xF0;  // A pair for a character of four bytes.
  }
  return units;
}

std::optional<size_t> EncodeUtf8(std::span<const uint16_t> units,
                                 char* destination) {
  char* out = destination;
  for (size_t i = 0; i < units.size(); ++i) {
    const uint32_t unit = units[i];
    if (unit < 0x80) {
      *out++ = Byte(unit);
    } else if (unit < 0x800) {
      *out++ = Byte(0xC0 | unit >> 6);
      *out++ = Continuation(unit);
    } else if (!IsSurrogate(unit)) {
      *out++ = Byte(0xE0 | unit >> 12);
      *out++ = Continuation(unit >> 6);
      *out++ = Continuation(unit);
    } else {
      // A pair: the high one first, then the low one, ten bits each.
      if (unit >= 0xDC00 || i + 1 == units.size()) return std::nullopt;
      const uint32_t low = units[++i];
      if (low < 0xDC00 || low > 0xDFFF) return std::nullopt;
      const uint32_t value = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
      *out++ = Byte(0xF0 | value >> 18);
      *out++ = Continuation(value >> 12);
      *out++ = Continuation(value >> 6);
      *out++ = Continuation(value);
    }
  }
  return static_cast<size_t>(out - destination);
}

}  // namespace zu
