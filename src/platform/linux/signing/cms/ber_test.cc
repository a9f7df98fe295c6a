#include "platform/linux/signing/cms/ber.h"

#include <gtest/gtest.h>
#include <string>

namespace zu::platform {
namespace {

using namespace std::string_literals;

std::span<const std::byte> Bytes(const std::string& text) {
  return std::as_bytes(std::span(text));
}

std::string Text(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

TEST(BerTest, TakesOneElement) {
  const struct {
    const char* name;
    std::string bytes;
    bool good;
    std::string content = {};
    size_t size = 0;
  } cases[] = {
      {"primitive, more behind", "\4\2ab\0"s, true, "ab", 4},
      {"empty", "\4\0"s, true, "", 2},
      {"long form", "\4\x81\2ab"s, true, "ab", 5},
      {"longest form", "\4\x88\0\0\0\0\0\0\0\1a"s, true, "a", 11},
      {"indefinite", "\x30\x80\4\1a\0\0z"s, true, "\4\1a"s, 7},
      {"nested", "\x30\x80\x30\x80\0\0\x31\2\0\0\0\0"s, true,
       "\x30\x80\0\0\x31\2\0\0"s, 12},
      {"nothing", "", false},
      {"tag alone", "\4", false},
      {"cut short", "\4\3ab", false},
      {"length cut short", "\4\x82\1", false},
      {"too long a form", "\4\x89\0\0\0\0\0\0\0\0\1a"s, false},
      {"size overflows", "\4\x88\xff\xff\xff\xff\xff\xff\xff\xff", false},
      {"reserved length", "\4\xff", false},
      {"indefinite primitive", "\4\x80\0\0"s, false},
      {"end mark alone", "\0\0"s, false},
      {"no end mark", "\x30\x80\4\1a"s, false},
      {"end mark with content", "\x30\x80\0\1a\0\0"s, false},
      {"tag number of several octets", "\x1f\x20\0"s, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    BerReader reader(Bytes(c.bytes));
    const auto element = reader.Take();
    ASSERT_EQ(element.has_value(), c.good);
    EXPECT_EQ(reader.rest().size(), c.bytes.size() - c.size);
    if (!element) continue;
    EXPECT_EQ(Text(element->content), c.content);
    EXPECT_EQ(element->encoding.size(), c.size);
  }
}

TEST(BerTest, JoinsStrings) {
  std::string deep = "\4\1a";
  for (int i = 0; i < 9; ++i) deep = "\x24\x80" + deep + "\0\0"s;
  std::string abyss;  // Nothing may go as deep as this.
  for (int i = 0; i < 200'000; ++i) abyss += "\x24\x80";
  const struct {
    const char* name;
    std::string bytes;
    std::optional<std::string> joined;
  } cases[] = {
      {"one", "\4\1a", "a"},
      {"pieces", "\x24\x80\4\1a\x24\4\4\2bc\0\0"s, "abc"},
      {"no pieces", "\x24\0"s, ""},
      {"another type among them", "\x24\5\4\1a\5\0"s, std::nullopt},
      {"of another type", "\x0c\1a", std::nullopt},
      {"too deep", deep, std::nullopt},
      {"bottomless", abyss + std::string(abyss.size(), '\0'), std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto element = BerReader(Bytes(c.bytes)).Take();
    ASSERT_TRUE(element);
    const auto joined = BerOctets(*element);
    ASSERT_EQ(joined.has_value(), c.joined.has_value());
    if (joined) {
      EXPECT_EQ(Text(*joined), *c.joined);
    }
  }
}

TEST(BerTest, EncodesTheShortestLength) {
  const std::pair<size_t, std::string> cases[] = {
      {0, "\4\0"s},        {127, "\4\x7f"},      {128, "\4\x81\x80"},
      {255, "\4\x81\xff"}, {256, "\4\x82\1\0"s}, {65536, "\4\x83\1\0\0"s}};
  for (const auto& [size, header] : cases) {
    const std::string content(size, 'x');
    EXPECT_EQ(Text(EncodeDer(kBerOctetString, {Bytes(content)})),
              header + content);
  }
}

}  // namespace
}  // namespace zu::platform
