#include "platform/property_list_json.h"

#include <gtest/gtest.h>
#include <utility>

namespace zu::platform {
namespace {

using namespace std::string_literals;

std::string Nested(size_t depth) {
  return std::string(depth, '[') + "1" + std::string(depth, ']');
}

// The lists are as the platform's documented format has them, less the tabs.
TEST(PropertyListFromJsonTest, WritesEveryKind) {
  const std::string head =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n";
  const std::pair<const char*, const char*> rows[] = {
      {R"({"a":[{},true,false],"d":{"x":""}})",
       "<dict>\n\t<key>a</key>\n\t<array>\n\t\t<dict/>\n\t\t<true/>\n"
       "\t\t<false/>\n\t</array>\n\t<key>d</key>\n\t<dict>\n"
       "\t\t<key>x</key>\n\t\t<string></string>\n\t</dict>\n</dict>"},
      // Integers up to 64 bits of either kind; reals with the 17 digits that
      // bring every double back.
      {"[-9223372036854775808,9223372036854775808,18446744073709551615,"
       "18446744073709551616,0.1,1.0,0.0,5e-324]",
       "<array>\n\t<integer>-9223372036854775808</integer>\n"
       "\t<integer>9223372036854775808</integer>\n"
       "\t<integer>18446744073709551615</integer>\n"
       "\t<real>1.8446744073709552e+19</real>\n"
       "\t<real>0.10000000000000001</real>\n\t<real>1</real>\n"
       "\t<real>0.0</real>\n\t<real>4.9406564584124654e-324</real>\n</array>"},
      // Keys in the order of their UTF-16 units; the first of two counts.
      {R"({"\uff5e":"\u00e9\n","\ud83d\ude00":"]]>","<&>":"<&>","B":"1","B":2})",
       "<dict>\n\t<key>&lt;&amp;&gt;</key>\n\t<string>&lt;&amp;&gt;</string>\n"
       "\t<key>B</key>\n\t<string>1</string>\n"
       "\t<key>\U0001F600</key>\n\t<string>]]&gt;</string>\n"
       "\t<key>\uff5e</key>\n\t<string>\u00e9\n</string>\n</dict>"}};
  for (const auto& [json, body] : rows) {
    EXPECT_EQ(PropertyListFromJson(json), head + body + "\n</plist>\n");
  }
}

TEST(PropertyListFromJsonTest, RefusesTheRest) {
  for (const std::string& json :
       {R"({"a":[1,{"b":null}]})"s, R"(["\u0000"])"s, R"({"\u0000":1})"s,
        "\"text\""s, ""s, "{a:1}"s, "{} {}"s, "{}\0"s, "[\"\xff\"]"s,
        Nested(513)}) {
    EXPECT_EQ(PropertyListFromJson(json), std::nullopt) << json;
  }
  EXPECT_TRUE(PropertyListFromJson(Nested(512)));
}

}  // namespace
}  // namespace zu::platform
