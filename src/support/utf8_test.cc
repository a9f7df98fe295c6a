#include "support/utf8.h"

#include <gtest/gtest.h>
#include <sstream>
#include <string>

namespace zu {
namespace {

// The bounds of table 3-7 ("well-formed UTF-8 byte sequences") of the Unicode
// standard, from both sides. Each text also at every place relative to the
// eight-byte blocks, because the ways through them differ.
TEST(Utf8Test, ValidityHoldsAtEveryPlace) {
  for (const bool valid : {true, false}) {
    std::istringstream texts(
        valid ? "\x7F \xC2\x80\xDF\xBF \xE0\xA0\x80\xEC\xBF\xBF\xEF\xBF\xBF "
                "\xED\x9F\xBF\xEE\x80\x80 \xF0\x90\x80\x80\xF4\x8F\xBF\xBF"
              : "\x80 \xC0\x80 \xC1\xBF \xE0\x9F\xBF \xF0\x8F\xBF\xBF "
                "\xED\xA0\x80 \xED\xBF\xBF \xF4\x90\x80\x80 \xF5\x80\x80\x80 "
                "\xF8\x88\x80\x80\x80 \xFF \xC3 \xE2\x82 \xF0\x9F\x92 "
                "\xE2\x82\x28 \xF0\x9F\x92\xC0");
    for (std::string text; texts >> text;) {
      for (size_t place = 0; place < 17 * 17; ++place) {
        const std::string before(place / 17, 'a'), after(place % 17, 'z');
        EXPECT_EQ(IsValidUtf8(before + text + after), valid) << text << place;
      }
    }
  }
}

}  // namespace
}  // namespace zu
