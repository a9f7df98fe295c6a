#include "process/memory_map_tool.h"

#include <gtest/gtest.h>

namespace zu::process {
namespace {

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
      // Any case, and the letters "fi" in one; a bracket may come before.
      {"__teXT /1\nMAPPED \uFB01le] ] R-X/ /2\n__TEXT\n mapped file ] r-x/ /a\n"
       "mapped file ]r-x/ /a\nmapped file ] rw-/ /a\nmapped file] r-x/ /a\n",
       "/1|/2|", 6},
      // Not two pieces; part of another.
      {"__TEXT x\n__TEXT /a /b\n__TEXT /usr/c/ d\n__TEXT /c/", "/usr/c/ d|",
       10},
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
