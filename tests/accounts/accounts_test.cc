// Users, groups and the ownership of files, over databases and tools of the
// test's own.

#include <gmock/gmock.h>
#include <unistd.h>
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ZuHelper.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace {

using ::testing::ElementsAre;
using zu::test::RecordingTool;
using zu::test::WriteFile;

constexpr uint32_t kUntouched = 77;
constexpr char kFile[] = "/Users/zu/a file";
constexpr char kHome[] = "/Users/zu";
constexpr char kSudo[] = "/usr/bin/sudo";
constexpr char kWho[] = "/usr/bin/who";
constexpr char kChown[] = "/usr/sbin/chown";
constexpr char kChmod[] = "/bin/chmod";

class AccountsTest : public zu::test::RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (IsSkipped()) return;
    // A member list far longer than any first guess at an entry's size.
    std::string members = "zu";
    for (int i = 0; i < 9000; ++i) members += ",user" + std::to_string(i);
    const std::pair<const char*, std::string> files[] = {
        {"/etc/nsswitch.conf", "passwd: files\ngroup: files\n"},
        {"/etc/passwd", "root:x:0:0::/:\nzu:x:4321:4000000000::/:\n"},
        {"/etc/group", "zu:x:4000000000:\nlarge:x:4322:" + members +
                           "\nother:x:4323:root\nsmall:x:4324:zu\n"},
        {kFile, ""}};
    for (const auto& [file, text] : files) {
      std::filesystem::remove(file);  // Root's may not be ours to change.
      WriteFile(file, text);
    }
  }
};

TEST_F(AccountsTest, NamesHaveIdentifiers) {
  EXPECT_EQ(ZuGetUserUid("zu"), 4321u);
  EXPECT_EQ(ZuGetGroupGid("large"), 4322u);
  for (const char* unknown : {"", "zu "}) {
    EXPECT_EQ(ZuGetUserUid(unknown), 0u) << unknown;
    EXPECT_EQ(ZuGetGroupGid(unknown), 0u) << unknown;
  }
  std::thread([] {
    EXPECT_EQ(ZuGetCurrentThreadId(), static_cast<uint32_t>(::gettid()));
  }).join();
}

// One body for every capacity: the count is always that of all groups, and no
// more than the capacity is written.
TEST_F(AccountsTest, GroupsOfAUser) {
  for (const int32_t capacity : {-1, 0, 2, 3, 5}) {
    std::vector<uint32_t> groups(6, kUntouched);
    int32_t count = capacity;
    EXPECT_EQ(ZuGetGroupsForUser(4321, groups.data(), &count),
              capacity < 3 ? -1 : 0);
    EXPECT_EQ(count, 3);
    std::vector<uint32_t> expected = {4000000000u, 4322, 4324};
    expected.resize(static_cast<size_t>(std::clamp(capacity, 0, 3)));
    expected.resize(groups.size(), kUntouched);
    EXPECT_EQ(groups, expected) << capacity;
  }
  int32_t count = 5;
  EXPECT_EQ(ZuGetGroupsForUser(5000, nullptr, &count), 0);
  EXPECT_EQ(count, 0);
}

// A tool that prints has failed; one that is silent has not.
TEST_F(AccountsTest, ChangesByCommandLine) {
  const auto own = ZuChangeFileOwnerGroup;
  const auto permit = ZuChangeFilePermissions;
  const struct {
    std::function<uint8_t()> call;
    const char* tool;
    std::vector<std::string> arguments;  // None: not run, and the result is 0.
  } cases[] = {
      {[=] { return own(kFile, "a", "b"); }, kSudo, {kChown, "a:b", kFile}},
      {[=] { return own(kHome, "1", "2"); },
       kSudo,
       {kChown, "-R", "1:2", kHome}},
      {[=] { return own("/Users/none", "a", "b"); }, kSudo, {}},
      {[=] { return own(nullptr, "a", "b"); }, kSudo, {}},
      {[=] { return own(kFile, "", "b"); }, kSudo, {}},
      {[=] { return own(kFile, "a", nullptr); }, kSudo, {}},
      {[=] { return permit(kFile, "u+x,g=", 0); }, kChmod, {"u+x,g=", kFile}},
      {[=] { return permit(kFile, "", 0); }, kChmod, {"", kFile}},
      {[=] { return permit(kHome, "0755", 256); },
       kChmod,
       {"-R", "0755", kHome}},
      {[=] { return permit("/Users/none", "0755", 1); }, kChmod, {}},
      {[=] { return permit("", "0755", 1); }, kChmod, {}},
      {[=] { return permit(kFile, nullptr, 1); }, kChmod, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    const bool runs = !c.arguments.empty();
    for (const char* output : {"", "\n"}) {
      const RecordingTool tool(c.tool, output);
      EXPECT_EQ(c.call(), runs && *output == '\0');
      ASSERT_EQ(tool.Calls().size(), runs);
      if (!runs) continue;
      EXPECT_EQ(tool.Calls()[0].arguments, c.arguments);
    }
  }
}

TEST_F(AccountsTest, OwnerIsTheUserAtTheTerminal) {
  const struct {
    const char* who;
    const char* path;
    const char* owner;  // Null: chown is not run.
  } cases[] = {{"zu  ttys000  Nov 23 04:14\n", kFile, "zu"},
               {"z\xC3\xBC\xE2\x80\x83tty", kFile, "z\xC3\xBC"},
               {"zu\xC2\x85tty", kFile, "zu"},
               {" zu ttys000\n", kFile, ""},
               {"", kFile, nullptr},
               {"zu\n", "", nullptr}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.who);
    const RecordingTool who(kWho, c.who);
    const RecordingTool chown(kChown, "");
    EXPECT_EQ(ZuChangeFileOwnerToCurrentUser(c.path), c.owner != nullptr);
    ASSERT_EQ(chown.Calls().size(), c.owner != nullptr);
    if (c.owner == nullptr) continue;
    EXPECT_THAT(chown.Calls()[0].arguments, ElementsAre(c.owner, c.path));
    EXPECT_THAT(who.Calls()[0].arguments, ElementsAre("-m"));
  }
}

}  // namespace
