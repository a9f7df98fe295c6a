#include "process/memory_map_tool.h"

#include <gtest/gtest.h>
#include <random>
#include <regex>

namespace zu::process {
namespace {

// Lines made of the expression's own pieces, near misses among them.
TEST(MemoryMapTool, MatchesAsTheExpressionDoes) {
  const std::regex expression(
      "((__TEXT.+)|(mapped (fi|\uFB01)le).+\\] +r-x/.+)", std::regex::icase);
  const std::string kStarts[] = {"__TEXT", "mapped file", "MAPPED \uFB01le ",
                                 "_tExt", " mapped file"};
  const std::string kPieces[] = {"]", " ", "] r-x/", "]  R-X/", "r-x/", "a"};
  std::mt19937 random(6);
  int matches = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string line = kStarts[random() % std::size(kStarts)];
    for (size_t pieces = random() % 6; pieces > 0; --pieces) {
      line += kPieces[random() % std::size(kPieces)];
    }
    const bool expected = std::regex_match(line, expression);
    ASSERT_EQ(IsExecutableMapping(line), expected) << line;
    matches += expected;
  }
  EXPECT_GT(matches, 2000);
  EXPECT_LT(matches, 18000);
}

TEST(MemoryMapTool, ListsWhatFits) {
  const struct {
    std::string text, list;  // With "|" for NUL.
    uint32_t needed, capacity = 64;
  } kRows[] = {
      {"Process: cat [7]\nPath: /bin/cat\n"
       "__TEXT 10-20 [ 8K] r-x/r-x SM=COW          /bin/cat\n"
       "__DATA 20-30 [ 8K] rw-/rw- SM=COW          /bin/data\n"
       "mapped file 40-50 [ 8K] r-x/rwx SM=COW     /lib/a b.so",
       "/bin/cat|/lib/a b.so|", 21},
      // Not two pieces; part of another.
      {"__TEXT x\n__TEXT /a /b\n__TEXT /usr/c/ d\n__TEXT /c/", "/usr/c/ d|",
       10},
      {"\r\n__TEXT /1\r\n__TEXT /2\v__TEXT /3\f__TEXT /4\u0085__TEXT /5"
       "\u2028__TEXT /6\u2029__TEXT /7\u2027",
       "/1|/2|/3|/4|/5|/6|/7\xE2|", 22},
      // 3 units in 5 bytes, 4 in 6.
      {"__TEXT /\u00E9\u00E8a\n__TEXT /\U0001F600bc",
       "/\u00E9\xC3|/\U0001F600|", 11},
      {"__TEXT /a/b\n__TEXT /c/d", "/a/b|/c/d|", 10, 10},
      // What did not fit hides what would, and is not searched for parts.
      {"__TEXT /a/b\n__TEXT /c/d\n__TEXT /e\n__TEXT /c/d", "/a/b\n", 18, 9}};
  for (const auto& [text, expected, needed, capacity] : kRows) {
    std::string buffer(80, '#');
    PathList list(buffer.data(), capacity);
    ListExecutableMappings(text, list);
    std::ranges::replace(buffer, '\0', '|');
    EXPECT_EQ(buffer, expected + std::string(80 - expected.size(), '#'));
    EXPECT_EQ(list.needed(), needed) << text;
  }
}

}  // namespace
}  // namespace zu::process
