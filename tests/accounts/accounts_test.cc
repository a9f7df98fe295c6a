// Users and groups, over databases of the test's own.

#include <gtest/gtest.h>
#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "ZuHelper.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace {

constexpr uint32_t kUntouched = 77;

using AccountsTest = zu::test::RootedTest;

TEST_F(AccountsTest, UsersAndGroups) {
  // A member list far longer than any first guess at an entry's size.
  std::string members = "zu";
  for (int i = 0; i < 9000; ++i) members += ",user" + std::to_string(i);
  // Root's may not be ours to change.
  for (const char* file : {"/etc/passwd", "/etc/group"}) {
    std::filesystem::remove(file);
  }
  zu::test::WriteFile("/etc/passwd", "zu:x:4321:4000000000::/:\n");
  zu::test::WriteFile("/etc/group",
                      "zu:x:4000000000:\nlarge:x:4322:" + members +
                          "\nother:x:4323:root\nsmall:x:4324:zu\n");
  EXPECT_EQ(ZuGetUserUid("zu"), 4321u);
  EXPECT_EQ(ZuGetGroupGid("large"), 4322u);
  EXPECT_EQ(ZuGetUserUid("none"), 0u);
  EXPECT_EQ(ZuGetGroupGid("none"), 0u);
  // The count is always that of all groups, and no more than the capacity is
  // written.
  const std::vector<uint32_t> all = {4000000000u, 4322, 4324};
  for (const int32_t capacity : {-1, 0, 2, 3, 4}) {
    std::vector<uint32_t> groups(4, kUntouched), expected = groups;
    const int32_t written = std::clamp(capacity, 0, 3);
    std::copy_n(all.begin(), written, expected.begin());
    int32_t count = capacity;
    EXPECT_EQ(ZuGetGroupsForUser(4321, groups.data(), &count),
              capacity < 3 ? -1 : 0);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(groups, expected) << capacity;
  }
}

}  // namespace
