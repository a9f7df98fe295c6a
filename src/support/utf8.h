// UTF-8: checking what tools print, counting and writing it.
#ifndef ZU_SUPPORT_UTF8_H_
#define ZU_SUPPORT_UTF8_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace zu {

// Whether all of `text` is well-formed as the Unicode standard defines it:
// overlong forms, surrogates and code points above U+10FFFF are not. NULs are
// characters like any other.
[[nodiscard]] bool IsValidUtf8(std::string_view text);

// The UTF-16 units of a well-formed text.
[[nodiscard]] size_t CountUtf16Units(std::string_view text);

// The most bytes that one UTF-16 unit takes (a pair, being two units, takes 4).
inline constexpr size_t kUtf8BytesPerUnit = 3;

// Writes `units` as UTF-8 to `destination`, which has room for
// kUtf8BytesPerUnit times their number, and returns the bytes written. No
// terminator is added. nullopt: a surrogate without its partner; what was
// written up to there is of no use.
[[nodiscard]] std::optional<size_t> EncodeUtf8(std::span<const uint16_t> units,
                                               char* destination);

}  // namespace zu

#endif  // ZU_SUPPORT_UTF8_H_
