// The UTF-16 conversions, through the exported names.

#include <gtest/gtest.h>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "ZuHelper.h"

namespace {

constexpr uint16_t kUntouched = 0xBEEF;
using Buffer = std::array<uint16_t, 12>;

Buffer MakeBuffer() {
  Buffer buffer;
  buffer.fill(kUntouched);
  return buffer;
}

// Each copier puts "abcdefghij" (ASCII is Mac OS Roman too) into a buffer:
// exactly the first min(10, capacity - 1) units and a terminator.
TEST(Utf16, CopiersCutAndTerminate) {
  uint16_t text[11] = {};
  std::copy_n(u"abcdefghij", 10, text);
  const std::function<void(uint16_t*, uint32_t)> copiers[] = {
      [&](uint16_t* destination, uint32_t capacity) {
        UniStrncpy(destination, text, capacity);
      },
      [&](uint16_t* destination, uint32_t capacity) {
        const ZuStringRef string = ZuStringCreate(text, 10);
        GetUnicodeStrFromCFString(string, destination, capacity);
        ZuStringRelease(string);
      },
      [](uint16_t* destination, uint32_t capacity) {
        GetUnicodeStrFromCString("abcdefghij", destination, capacity);
      }};
  for (const auto& copy : copiers) {
    for (const uint32_t capacity : {0u, 1u, 2u, 10u, 11u, 12u, ~0u}) {
      Buffer buffer = MakeBuffer();
      copy(buffer.data(), capacity);
      Buffer expected = MakeBuffer();
      if (capacity > 0) {
        const size_t length = std::min<size_t>(10, capacity - 1);
        std::copy_n(text, length, expected.begin());
        expected[length] = 0;
      }
      EXPECT_EQ(buffer, expected) << &copy - copiers << ' ' << capacity;
    }
  }
}

TEST(Utf16, NothingGivesNothing) {
  Buffer buffer = MakeBuffer();
  UniStrncpy(buffer.data(), nullptr, buffer.size());
  UniStrncpy(nullptr, buffer.data(), buffer.size());
  EXPECT_EQ(buffer, MakeBuffer());
  GetUnicodeStrFromCFString(nullptr, buffer.data(), buffer.size());
  EXPECT_EQ(buffer[0], 0);
  EXPECT_EQ(ZuStringCreate(nullptr, 1), nullptr);
  ZuStringRelease(nullptr);
  EXPECT_EQ(Unistr2Cstr(nullptr), nullptr);
}

// The ends of the upper half, and the two bytes at which tables of this name
// differ: the increment sign and the logo.
TEST(Utf16, BytesAreMacRoman) {
  Buffer buffer = MakeBuffer();
  GetUnicodeStrFromCString("\x7F\x80\xC6\xDB\xF0\xFF", buffer.data(), 7);
  const std::u16string expected = u"\u007F\u00C4\u2206\u20AC\uF8FF\u02C7";
  EXPECT_TRUE(std::equal(expected.begin(), expected.end(), buffer.begin()));
}

TEST(Utf16, ToUtf8) {
  const std::pair<std::u16string, std::string_view> rows[] = {
      {u"", ""},
      {u"plain\u007F\u0080\u07FF", "plain\x7F\xC2\x80\xDF\xBF"},
      {u"\u0800\uD7FF\uE000\uFFFF",
       "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"},
      {u"\U00010000\U0010FFFF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
      // A surrogate without its partner: at the end, before another character,
      // the wrong way round, twice the high one.
      {{u'a', 0xD800}, ""},
      {{0xDBFF, u'a'}, ""},
      {{u'a', 0xDC00, 0xD800}, ""},
      {{0xD800, 0xD800, 0xDC00}, ""},
  };
  for (const auto& [units, expected] : rows) {
    const std::unique_ptr<char, decltype(&std::free)> text(
        Unistr2Cstr(reinterpret_cast<const uint16_t*>(units.c_str())),
        &std::free);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text.get(), expected);
  }
}

}  // namespace
