// The texts that zuctl sends, and makes of what others wrote.
#include "text.h"

#include <gtest/gtest.h>

#include "request_text.h"

namespace zu::ctl {
namespace {

TEST(TextTest, IsFitForTerminalsAndJson) {
  const struct {
    std::string text;
    const char* printable;
    const char* json;
  } kRows[] = {
      {"\"\\\xC3\xA4\xF0\x9F\x98\x80", "\"\\\xC3\xA4\xF0\x9F\x98\x80",
       "\"\\\"\\\\\xC3\xA4\xF0\x9F\x98\x80\""},
      {std::string("\x1b\0\x7f", 3), "\\x1B\\x00\\x7F",
       R"("\u001b\u0000\u007f")"},
      // One byte's worth of escape sequence, and text shown backwards.
      {"\xC2\x9B\xE2\x80\xAE", "\\xC2\\x9B\\xE2\\x80\\xAE",
       R"("\u009b\u202e")"},
      // Not UTF-8: cut short.
      {"a\xE2\x82", "a\\xE2\\x82", R"("a\ufffd\ufffd")"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(Printable(row.text), row.printable);
    EXPECT_EQ(QuoteJson(row.text), row.json);
  }
}

// A command that the server finds, and everything else as it was given.
TEST(RequestTextTest, PutsTheCommandFirst) {
  const struct {
    const char* command;
    const char* members;
    const char* text;
  } kRows[] = {
      {"PING", " { \n} ", R"({"CMD_":"PING"} )"},
      // Numbers that a parser would round stay as they are.
      {"a\"\n", R"({"n":123456789012345678901234567890, "x":[{}]})",
       R"({"CMD_":"a\"\u000a","n":123456789012345678901234567890, "x":[{}]})"},
      {"A", R"({"x":{"CMD_":"B"}})", R"({"CMD_":"A","x":{"CMD_":"B"}})"},
      {"A", R"({"\u0043MD_":"B"})", "refused"},
      {"A", "[1]", "refused"},
      {"A", "", "refused"},
      {"A", "{}, \"x\":1}", "refused"},
      {"\xff", "{}", "refused"},
  };
  for (const auto& row : kRows) {
    std::string why;
    const auto text = MakeRequestText(row.command, row.members, why);
    EXPECT_EQ(text.value_or("refused"), row.text) << row.members;
    EXPECT_EQ(why.empty(), text.has_value());
  }
}

}  // namespace
}  // namespace zu::ctl
