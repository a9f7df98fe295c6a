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
    std::string content = {};
    size_t size = 0;  // Refused.
  } cases[] = {
      {"primitive, more behind", "\4\2ab\0"s, "ab", 4},
      {"longest form", "\4\x88\0\0\0\0\0\0\0\1a"s, "a", 11},
      {"nested", "\x30\x80\x30\x80\0\0\x31\2\0\0\0\0"s,
       "\x30\x80\0\0\x31\2\0\0"s, 12},
      {"cut short", "\4\3ab"},
      {"length cut short", "\4\x82\1"},
      {"too long a form", "\4\x89\0\0\0\0\0\0\0\0\1a"s},
      {"size overflows", "\4\x88\xff\xff\xff\xff\xff\xff\xff\xff"},
      {"indefinite primitive", "\4\x80\0\0"s},
      {"no end mark", "\x30\x80\4\1a"s},
      {"end mark with content", "\x30\x80\0\1a\0\0"s},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    BerReader reader(Bytes(c.bytes));
    const auto element = reader.Take();
    ASSERT_EQ(element.has_value(), c.size != 0);
    EXPECT_EQ(reader.rest().size(), c.bytes.size() - c.size);
    if (!element) continue;
    EXPECT_EQ(Text(element->content), c.content);
    EXPECT_EQ(element->encoding.size(), c.size);
  }
}

TEST(BerTest, JoinsStrings) {
  const std::string parts = "\x24\x80\4\1a\x24\4\4\2bc\0\0"s;
  const auto joined = BerOctets(BerReader(Bytes(parts)).Take().value());
  EXPECT_EQ(Text(joined.value()), "abc");
  std::string abyss;  // Nothing may go as deep as this.
  for (int i = 0; i < 200'000; ++i) abyss += "\x24\x80";
  abyss.resize(2 * abyss.size());
  EXPECT_FALSE(BerOctets(BerReader(Bytes(abyss)).Take().value()));
}

}  // namespace
}  // namespace zu::platform
