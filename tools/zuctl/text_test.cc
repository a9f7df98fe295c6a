#include "text.h"

#include <gtest/gtest.h>

namespace zu::ctl {
namespace {

TEST(TextTest, IsFitForTerminalsAndJson) {
  const struct {
    std::string text;
    const char* printable;
    const char* json;
  } kRows[] = {
      {"/a b/\xC3\xA4\xF0\x9F\x98\x80", "/a b/\xC3\xA4\xF0\x9F\x98\x80",
       "\"/a b/\xC3\xA4\xF0\x9F\x98\x80\""},
      {"\"\\", "\"\\", R"("\"\\")"},
      {"\x1b[2J\n\x7f", "\\x1B[2J\\x0A\\x7F", R"("\u001b[2J\u000a\u007f")"},
      {std::string("\0x", 2), "\\x00x", R"("\u0000x")"},
      // One byte's worth of escape sequence, and text shown backwards.
      {"\xC2\x9B\xE2\x80\xAE", "\\xC2\\x9B\\xE2\\x80\\xAE",
       R"("\u009b\u202e")"},
      // Not UTF-8: cut short, overlong, a surrogate.
      {"a\xE2\x82", "a\\xE2\\x82", R"("a\ufffd\ufffd")"},
      {"\xC0\x80", "\\xC0\\x80", R"("\ufffd\ufffd")"},
      {"\xED\xA0\x80", "\\xED\\xA0\\x80", R"("\ufffd\ufffd\ufffd")"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(Printable(row.text), row.printable);
    EXPECT_EQ(QuoteJson(row.text), row.json);
  }
}

TEST(TextTest, IsCutInTheMiddle) {
  const struct {
    const char* text;
    size_t columns;
    const char* cut;
  } kRows[] = {
      {"/usr/lib/file", 13, "/usr/lib/file"},
      {"/usr/lib/file", 12, "/usr.../file"},
      {"/usr/lib/file", 4, "...e"},
      {"/usr/lib/file", 2, ".."},
      // Never inside a character.
      {"\xC3\xA4\xC3\xB6\xC3\xBC\xC3\xA4\xC3\xB6\xC3\xBC", 5,
       "\xC3\xA4...\xC3\xBC"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(CutMiddle(row.text, row.columns), row.cut);
  }
}

TEST(TextTest, TellsSizesInThreeDigits) {
  const struct {
    uint64_t bytes;
    const char* text;
  } kRows[] = {
      {0, "0 bytes"},           {999, "999 bytes"},       {1000, "0.98 KiB"},
      {1024, "1.00 KiB"},       {10239, "10.0 KiB"},      {102348, "99.9 KiB"},
      {102400, "100 KiB"},      {1023487, "999 KiB"},     {1023488, "0.98 MiB"},
      {1536 << 20, "1.50 GiB"}, {UINT64_MAX, "16.0 EiB"},
  };
  for (const auto& row : kRows) EXPECT_EQ(SizeText(row.bytes), row.text);
}

}  // namespace
}  // namespace zu::ctl
