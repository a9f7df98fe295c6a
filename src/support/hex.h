// Bytes as hexadecimal text.
#ifndef ZU_SUPPORT_HEX_H_
#define ZU_SUPPORT_HEX_H_

#include <cstddef>
#include <span>

namespace zu {

// Writes two upper-case digits a byte, the high half first, and a NUL: `text`
// has room for 2 * bytes.size() + 1 characters.
inline void WriteUpperHex(std::span<const std::byte> bytes, char* text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  for (const std::byte byte : bytes) {
    *text++ = kDigits[std::to_integer<size_t>(byte >> 4)];
    *text++ = kDigits[std::to_integer<size_t>(byte & std::byte{15})];
  }
  *text = '\0';
}

}  // namespace zu

#endif  // ZU_SUPPORT_HEX_H_
