#include "request_text.h"

#include <gtest/gtest.h>

#include <ostream>

namespace zu::ctl {
namespace {

struct Case {
  const char* name;
  const char* command;
  const char* members;
  const char* text;  // Or "refused".
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

class RequestTextTest : public testing::TestWithParam<Case> {};

TEST_P(RequestTextTest, PutsTheCommandFirst) {
  const Case& c = GetParam();
  std::string why;
  const std::optional<std::string> text =
      MakeRequestText(c.command, c.members, why);
  EXPECT_EQ(text.value_or("refused"), c.text) << why;
  EXPECT_EQ(why.empty(), text.has_value());
}

INSTANTIATE_TEST_SUITE_P(
    All, RequestTextTest,
    testing::Values(
        Case{"NoMembers", "PING", " { \n} ", R"({"CMD_":"PING"} )"},
        // Numbers that a parser would round stay as they are.
        Case{"Members", "A",
             R"({"n":123456789012345678901234567890, "x":[{}]})",
             R"({"CMD_":"A","n":123456789012345678901234567890, "x":[{}]})"},
        Case{"Escapes", "a\"b\\c\nd", "{}", R"({"CMD_":"a\"b\\c\u000ad"})"},
        Case{"NestedCommand", "A", R"({"x":{"CMD_":"B"}})",
             R"({"CMD_":"A","x":{"CMD_":"B"}})"},
        Case{"OwnCommand", "A", R"({"x":1,"CMD_":"B"})", "refused"},
        Case{"EscapedOwnCommand", "A", R"({"\u0043MD_":"B"})", "refused"},
        Case{"Array", "A", "[1]", "refused"},
        Case{"Text", "A", "\"x\"", "refused"},
        Case{"Nothing", "A", "", "refused"},
        Case{"Half", "A", "{\"x\":1", "refused"},
        Case{"TwoObjects", "A", "{}{}", "refused"},
        Case{"Smuggled", "A", "{}, \"x\":1}", "refused"},
        Case{"CommandNotUtf8", "\xff", "{}", "refused"}),
    [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace zu::ctl
