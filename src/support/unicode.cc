// The exported UTF-16 conversions. They are not symmetric, which hosts rely on:
// narrow to wide reads Mac OS Roman, wide to narrow writes UTF-8.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "ZuHelper.h"
#include "platform/string_object.h"
#include "support/utf8.h"

namespace {

// The upper half of Mac OS Roman as CoreFoundation reads it, which is the
// Unicode consortium's ROMAN.TXT. C libraries' converters differ at 0xC6 and
// 0xF0 (Delta for the increment sign, another private character for the logo).
constexpr uint16_t kMacRomanUpperHalf[128] = {
    0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1,  // 80
    0x00E0, 0x00E2, 0x00E4, 0x00E3, 0x00E5, 0x00E7, 0x00E9, 0x00E8,
    0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF, 0x00F1, 0x00F3,  // 90
    0x00F2, 0x00F4, 0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC,
    0x2020, 0x00B0, 0x00A2, 0x00A3, 0x00A7, 0x2022, 0x00B6, 0x00DF,  // A0
    0x00AE, 0x00A9, 0x2122, 0x00B4, 0x00A8, 0x2260, 0x00C6, 0x00D8,
    0x221E, 0x00B1, 0x2264, 0x2265, 0x00A5, 0x00B5, 0x2202, 0x2211,  // B0
    0x220F, 0x03C0, 0x222B, 0x00AA, 0x00BA, 0x03A9, 0x00E6, 0x00F8,
    0x00BF, 0x00A1, 0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB,  // C0
    0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3, 0x00D5, 0x0152, 0x0153,
    0x2013, 0x2014, 0x201C, 0x201D, 0x2018, 0x2019, 0x00F7, 0x25CA,  // D0
    0x00FF, 0x0178, 0x2044, 0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02,
    0x2021, 0x00B7, 0x201A, 0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1,  // E0
    0x00CB, 0x00C8, 0x00CD, 0x00CE, 0x00CF, 0x00CC, 0x00D3, 0x00D4,
    0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9, 0x0131, 0x02C6, 0x02DC,  // F0
    0x00AF, 0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7};

constexpr uint16_t FromMacRoman(char c) {
  const auto byte = static_cast<uint8_t>(c);
  return byte < 0x80 ? byte : kMacRomanUpperHalf[byte - 0x80];
}

}  // namespace

void UniStrncpy(uint16_t* destination, const uint16_t* source,
                uint64_t capacity) {
  if (destination == nullptr || source == nullptr || capacity == 0) return;
  uint64_t length = 0;
  for (; length < capacity - 1 && source[length] != 0; ++length) {
    destination[length] = source[length];
  }
  destination[length] = 0;
}

void GetUnicodeStrFromCFString(ZuStringRef string, uint16_t* destination,
                               uint32_t capacity) {
  if (capacity == 0) return;
  size_t length = 0;
  if (string != nullptr) {
    length = std::min<size_t>(zu::platform::LengthOf(string), capacity - 1);
    zu::platform::CopyUnits(string, length, destination);
  }
  destination[length] = 0;
}

void GetUnicodeStrFromCString(const char* text, uint16_t* destination,
                              uint32_t capacity) {
  if (capacity == 0) return;
  uint32_t length = 0;
  for (; length < capacity - 1 && text[length] != '\0'; ++length) {
    destination[length] = FromMacRoman(text[length]);
  }
  destination[length] = 0;
}

char* Unistr2Cstr(const uint16_t* source) {
  if (source == nullptr) return nullptr;
  size_t units = 0;
  while (source[units] != 0) ++units;
  auto* const text =
      static_cast<char*>(std::malloc(units * zu::kUtf8BytesPerUnit + 1));
  if (text == nullptr) return nullptr;
  text[zu::EncodeUtf8(std::span(source, units), text).value_or(0)] = '\0';
  return text;
}
