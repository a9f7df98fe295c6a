// The table of processes, through the exported names.

#include <pthread.h>
#include <sys/mount.h>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "tests/process/paused_child.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace {

using zu::test::PausedChild;
using zu::test::WriteFile;
using Numbers = std::vector<int32_t>;

TEST(ListProcesses, FillsTheRoomAndCountsAll) {
  const PausedChild child;
  for (const int32_t capacity : {-5, 0, 1, 1 << 22}) {
    const size_t room = static_cast<size_t>(std::max(capacity, 0));
    Numbers pids(room + 1, -7);
    int32_t count = capacity;
    ASSERT_EQ(ListProcesses(room == 0 ? nullptr : pids.data(), &count), 0u);
    ASSERT_GE(count, 3);  // The first, this one and the child.
    const size_t written = std::min(room, static_cast<size_t>(count));
    EXPECT_EQ(pids[written], -7);
    pids.resize(written);
    EXPECT_TRUE(std::is_sorted(pids.begin(), pids.end(), std::less_equal<>()));
    if (room <= 1) continue;
    EXPECT_THAT(pids, ::testing::IsSupersetOf({1, ::getpid(), child.pid()}));
  }
}

using Parents = std::map<int32_t, int32_t>;

// What the records say; checks that they say nothing else.
Parents ReadTable() {
  void* block = nullptr;
  size_t length = 0;
  EXPECT_EQ(GetProcessesInfo(&block, &length), ZU_PROCESS_OK);
  const std::unique_ptr<char, decltype(&std::free)> owner(
      static_cast<char*>(block), &std::free);
  EXPECT_EQ(length % 648, 0u);
  Parents parents;
  for (size_t at = 0; at < length; at += 648) {
    int32_t link[2];
    char record[648] = {};
    std::memcpy(&link[0], owner.get() + at + 40, 4);
    std::memcpy(&link[1], owner.get() + at + 560, 4);
    std::memcpy(record + 40, &link[0], 4);
    std::memcpy(record + 560, &link[1], 4);
    EXPECT_EQ(std::memcmp(record, owner.get() + at, sizeof record), 0);
    EXPECT_TRUE(parents.empty() || parents.rbegin()->first < link[0]);
    parents.emplace(link[0], link[1]);
  }
  return parents;
}

TEST(GetProcessesInfo, HasParentsWhateverTheNameWhileOthersEnd) {
  const PausedChild named([] { ::prctl(PR_SET_NAME, "a) S 1 (b) 1"); });
  const PausedChild zombie([] { ::_exit(0); });
  const PausedChild coming_and_going([] {},
                                     [] {
                                       if (::fork() == 0) ::_exit(0);
                                       ::wait(nullptr);
                                     });
  for (int round = 0; round < 100; ++round) {
    const Parents parents = ReadTable();
    ASSERT_EQ(parents.at(::getpid()), ::getppid());
    ASSERT_EQ(parents.at(named.pid()), ::getpid());
    ASSERT_EQ(parents.at(zombie.pid()), ::getpid());
  }
}

// Of listing, counting and reading, which leave the counts alone on failure.
Numbers Statuses() {
  int32_t counts[] = {0, 5};
  int32_t child = -7;
  void* block = nullptr;
  size_t length = 0;
  const uint32_t statuses[] = {
      ListProcesses(nullptr, &counts[0]),
      ListChildProcesses(::getppid(), &child, &counts[1]),
      GetProcessesInfo(&block, &length)};
  if (statuses[2] == 0) std::free(block);
  EXPECT_EQ(counts[0] > 0, statuses[0] == 0);
  EXPECT_EQ(counts[1], statuses[1] == 0 ? 0 : 5);  // Never any children.
  EXPECT_EQ(child, -7);
  return {std::begin(statuses), std::end(statuses)};
}

using ProcessTableTest = zu::test::RootedTest;

TEST_F(ProcessTableTest, TellsWhatItCannotRead) {
  EXPECT_EQ(Statuses(), (Numbers{0, 0, 0}));
  ASSERT_EQ(::mount("none", "/proc", "tmpfs", 0, nullptr), 0);
  EXPECT_EQ(Statuses(), (Numbers{-1, -1, -1}));
  const std::string name(64, ')');
  WriteFile("/proc/7/stat", "7 (" + name + ") R 4194304 7 7 0");
  std::filesystem::create_directory("/proc/8");  // It ends.
  EXPECT_EQ(ReadTable(), (Parents{{7, 4194304}}));
  WriteFile("/proc/9/stat", "9");
  EXPECT_EQ(Statuses(), (Numbers{0, -1, -1}));
  EXPECT_EQ(::umount2("/proc", MNT_DETACH), 0);
}

using Links = std::vector<std::pair<int32_t, int32_t>>;  // Process and parent.

Numbers Mark(const Links& links, Numbers found, int32_t parent) {
  std::string table(links.size() * 648, '\x5A');
  for (size_t i = 0; i < links.size(); ++i) {
    std::memcpy(&table[i * 648 + 40], &links[i].first, 4);
    std::memcpy(&table[i * 648 + 560], &links[i].second, 4);
  }
  int32_t count = static_cast<int32_t>(found.size());
  found.resize(found.size() + links.size());
  _markChildProcesses(found.data(), table.data(),
                      static_cast<int32_t>(links.size()), parent, &count);
  found.resize(static_cast<size_t>(count));
  return found;
}

TEST(MarkChildProcesses, GoesGenerationByGeneration) {
  struct Row {
    const char* name;
    Links links;
    Numbers found;
    Numbers expected;  // For process 1.
  };
  for (const Row& row : std::vector<Row>{
           {"Empty", {}, {8}, {8}},
           {"TableOrder", {{9, 1}, {-4, 1}, {5, 1}, {2, 3}}, {}, {9, -4, 5}},
           {"ElderFirst",
            {{6, 4}, {2, 1}, {4, 2}, {3, 1}, {5, 3}, {7, 2}, {8, 6}},
            {},
            {2, 3, 4, 7, 6, 8, 5}},
           {"OwnParent", {{1, 1}, {2, 1}, {2, 2}}, {}, {1, 2}},
           {"Cycle", {{1, 3}, {2, 1}, {3, 2}}, {}, {2, 3, 1}},
           {"Twice", {{2, 1}, {3, 1}, {2, 1}, {3, 2}, {4, 3}}, {}, {2, 3, 4}},
           {"FoundBefore", {{2, 1}, {3, 2}, {4, 1}}, {5, 2}, {5, 2, 4}},
       }) {
    EXPECT_EQ(Mark(row.links, row.found, 1), row.expected) << row.name;
  }
}

// One process below the other, on a thread with a small stack. Each also has a
// child that comes later in the table, so that every generation is unfinished.
TEST(MarkChildProcesses, FollowsLongLines) {
  pthread_attr_t small;
  ::pthread_attr_init(&small);
  ::pthread_attr_setstacksize(&small, 256 * 1024);
  pthread_t thread;
  const auto follow = [](void*) -> void* {
    constexpr int32_t kCount = 100'000;
    Links links;
    Numbers expected;
    for (int32_t pid = 2; pid < kCount; pid += 2) {
      links.emplace_back(pid, std::max(pid - 2, 1));
      links.emplace_back(pid + 1, std::max(pid - 2, 1));
      expected.insert(expected.end(), {pid, pid + 1});
    }
    EXPECT_EQ(Mark(links, {}, 1), expected);
    return nullptr;
  };
  ASSERT_EQ(::pthread_create(&thread, &small, follow, nullptr), 0);
  ::pthread_join(thread, nullptr);
}

}  // namespace
