#include "support/utf8.h"

#include <gtest/gtest.h>
#include <string>

namespace zu {
namespace {

using namespace std::string_literals;

struct ValidityCase {
  const char* name;
  std::string text;
  bool valid;
};

class Utf8Validity : public ::testing::TestWithParam<ValidityCase> {};

// Each text also at every place relative to the eight-byte blocks, because the
// ways through them differ.
TEST_P(Utf8Validity, HoldsAtEveryPlace) {
  for (size_t before = 0; before < 17; ++before) {
    for (size_t after = 0; after < 17; ++after) {
      const std::string text =
          std::string(before, 'a') + GetParam().text + std::string(after, 'z');
      EXPECT_EQ(IsValidUtf8(text), GetParam().valid) << before << ' ' << after;
    }
  }
}

// The bounds of table 3-7 ("well-formed UTF-8 byte sequences") of the Unicode
// standard, from both sides.
INSTANTIATE_TEST_SUITE_P(
    Table37, Utf8Validity,
    ::testing::Values(
        ValidityCase{"Empty", "", true}, ValidityCase{"Nul", "\0"s, true},
        ValidityCase{"LastAscii", "\x7F", true},
        ValidityCase{"TwoBytes", "\xC2\x80\xDF\xBF", true},
        ValidityCase{"ThreeBytes", "\xE0\xA0\x80\xEC\xBF\xBF\xEF\xBF\xBF",
                     true},
        ValidityCase{"AroundSurrogates", "\xED\x9F\xBF\xEE\x80\x80", true},
        ValidityCase{"FourBytes", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", true},
        ValidityCase{"LoneContinuation", "\x80", false},
        ValidityCase{"OverlongNul", "\xC0\x80", false},
        ValidityCase{"OverlongTwo", "\xC1\xBF", false},
        ValidityCase{"OverlongThree", "\xE0\x9F\xBF", false},
        ValidityCase{"OverlongFour", "\xF0\x8F\xBF\xBF", false},
        ValidityCase{"FirstSurrogate", "\xED\xA0\x80", false},
        ValidityCase{"LastSurrogate", "\xED\xBF\xBF", false},
        ValidityCase{"BeyondUnicode", "\xF4\x90\x80\x80", false},
        ValidityCase{"FirstByteF5", "\xF5\x80\x80\x80", false},
        ValidityCase{"FiveBytes", "\xF8\x88\x80\x80\x80", false},
        ValidityCase{"ByteFF", "\xFF", false},
        ValidityCase{"CutTwo", "\xC3", false},
        ValidityCase{"CutThree", "\xE2\x82", false},
        ValidityCase{"CutFour", "\xF0\x9F\x92", false},
        ValidityCase{"WrongThird", "\xE2\x82\x28", false},
        ValidityCase{"WrongFourth", "\xF0\x9F\x92\xC0", false}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace zu
