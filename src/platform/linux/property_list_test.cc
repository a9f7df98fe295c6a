#include "platform/linux/property_list.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace zu::platform {
namespace {

using namespace std::string_literals;
using Type = PropertyList::Type;
using Value = PropertyList::Value;

std::optional<PropertyList> Parse(const std::string& text) {
  return PropertyList::Parse(std::as_bytes(std::span(text)));
}

// A short form of a list, to compare with.
std::string Show(Value value) {
  if (const auto text = value.AsString()) return std::string(*text);
  if (const auto data = value.AsData()) return std::to_string(data->size());
  if (const auto boolean = value.AsBoolean()) return *boolean ? "yes" : "no";
  if (const auto integer = value.AsInteger()) return std::to_string(*integer);
  if (const auto real = value.AsReal()) return std::to_string(*real);
  if (value.type() == Type::kDate) return "date";
  if (value.type() == Type::kUid) return "uid";
  const bool has_keys = value.type() == Type::kDictionary;
  std::string text;
  for (size_t i = 0; i < value.size(); ++i) {
    if (has_keys) text.append(value.KeyAt(i)).append("=");
    text += Show(has_keys ? value.EntryAt(i) : value.ItemAt(i)) + ';';
  }
  return has_keys ? "{" + text + "}" : "[" + text + "]";
}

std::string Repeat(const std::string& text, int times) {
  return times == 0 ? "" : text + Repeat(text, times - 1);
}

// With offsets of two bytes and references of one.
std::string Binary(const std::vector<std::string>& objects, char root = 0) {
  std::string text = "bplist00";
  std::string offsets;
  for (const std::string& object : objects) {
    offsets += static_cast<char>(text.size() >> 8);
    offsets += static_cast<char>(text.size());
    text += object;
  }
  const auto number = [](size_t value) {
    return std::string(6, '\0') + static_cast<char>(value >> 8) +
           static_cast<char>(value);
  };
  return text + offsets + "\0\0\0\0\0\0\2\1"s + number(objects.size()) +
         std::string(7, '\0') + root + number(text.size());
}

// Arrays that each list the next one `width` times.
std::string Chain(size_t depth, size_t width) {
  std::vector<std::string> objects;
  for (size_t i = 1; i < depth; ++i) {
    objects.push_back(static_cast<char>(0xa0 + width) +
                      std::string(width, static_cast<char>(i)));
  }
  objects.push_back("\xa0");
  return Binary(objects);
}

TEST(PropertyListTest, ReadsBothForms) {
  const std::string head =
      "\xef\xbb\xbf<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!-- <dict> -->"
      "<!DOCTYPE plist PUBLIC \"-//X//DTD 1.0//EN\" \"http://x/y.dtd\">\n";
  const struct {
    const char* name;
    std::string text;
    std::string expected = "";  // Empty: refused.
  } cases[] = {
      {"every type",
       head + "<plist version=\"1.0\"><dict><key>s</key><string>a</string>"
              "<key>d</key><data>\n aGVs\n bG8= </data><key>t</key><true/>"
              "<key>f</key><false></false><key>i</key><integer>-12</integer>"
              "<key>h</key><integer>0x1F</integer><key>r</key><real>1.5</real>"
              "<key>w</key><date>2012-08-10T21:25:54Z</date>"
              "<!-- x --><key>a</key><array><dict/><array/></array></dict>"
              "</plist>\n",
       "{s=a;d=5;t=yes;f=no;i=-12;h=31;r=1.500000;w=date;a=[{};[];];}"},
      {"text", "<string> &lt;&amp;&#x1F600;&#65;<![CDATA[<&]]>b\n</string>",
       " <&\U0001F600A<&b\n"},
      {"63 bits exceeded", "<integer>9223372036854775808</integer>",
       "9223372036854775808.000000"},
      {"NUL", "<string>&#0;</string>"},
      {"not UTF-8", "<string>\xff</string>"},
      {"base64 behind its end", "<data>aG==aG==</data>"},
      {"key without value", "<dict><key>a</key></dict>"},
      {"cut short", "<plist><array><true/></array>"},
      {"own entities", "<!DOCTYPE plist [<!ENTITY a \"b\">]><true/>"},
      {"deepest", Repeat("<array>", 127) + Repeat("</array>", 127),
       Repeat("[", 127) + Repeat("];", 126) + "]"},
      {"too deep", Repeat("<array>", 128) + Repeat("</array>", 128)},
      {"binary dictionary",
       Binary({"\xd3\1\2\3\3\2\1"s, "\121a", "\x61\x20\xac"s, "\123xyz"}),
       "{a=xyz;\u20ac=\u20ac;xyz=a;}"},
      {"binary scalars",
       Binary({"\xa9\1\2\3\4\5\6\7\x08\x09"s, "\x09", "\x08", "\x10\xff",
               "\x13\xff\xff\xff\xff\xff\xff\xff\xfe"s,
               "\x23\x3f\xf8\0\0\0\0\0\0"s, "\x22\x3f\xc0\0\0"s,
               "\x33\0\0\0\0\0\0\0\0"s, "\x80\7"s, "\102hi"}),
       "[yes;no;255;-2;1.500000;1.500000;date;uid;2;]"},
      {"long count", Binary({"\x5f\x11\0\3abc"s}), "abc"},
      {"count beyond the end",
       Binary({"\x5f\x13\xff\xff\xff\xff\xff\xff\xff\xff"s})},
      {"list beyond the end", Binary({"\xae\0"s})},
      {"root beyond the end", Binary({"\x09"}, 1)},
      {"key that is no string", Binary({"\xd1\1\1"s, "\x09"})},
      {"circle", Binary({"\xa1\1"s, "\xa1\0"s})},
      {"deepest binary", Chain(128, 1),
       Repeat("[", 128) + Repeat("];", 127) + "]"},
      {"too deep binary", Chain(129, 1)},
      {"too many when counted again", Chain(100, 2)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::optional<PropertyList> list = Parse(c.text);
    ASSERT_EQ(list.has_value(), !c.expected.empty());
    if (list) {
      EXPECT_EQ(Show(list->root()), c.expected);
    }
  }
}

}  // namespace
}  // namespace zu::platform
