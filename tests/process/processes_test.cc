// The table of processes, single ones and their users, through the exported
// names.

#include <elf.h>
#include <paths.h>
#include <sys/mount.h>
#include <utmpx.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "support/allocated.h"
#include "tests/support/fake_tool.h"
#include "tests/support/paused_child.h"
#include "tests/support/test_root.h"
#include "tests/support/test_tree.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using ::testing::IsSupersetOf;
using zu::test::EndedProcess;
using zu::test::PausedChild;
using zu::test::WriteFile;

using ProcessesTest = zu::test::RootedTest;

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
    EXPECT_THAT(pids, IsSupersetOf({1, ::getpid(), child.pid()}));
  }
}

using Parents = std::map<int32_t, int32_t>;

// What the records say; checks that they say nothing else.
Parents ReadTable() {
  void* block = nullptr;
  size_t length = 0;
  EXPECT_EQ(GetProcessesInfo(&block, &length), ZU_PROCESS_OK);
  const zu::Allocated<void> owner(block);
  EXPECT_EQ(length % 648, 0u);
  Parents parents;
  for (size_t at = 0; at < length; at += 648) {
    std::string record(static_cast<char*>(block) + at, 648);
    int32_t pid = 0, parent = 0;
    record.copy(reinterpret_cast<char*>(&pid), 4, 40);
    record.copy(reinterpret_cast<char*>(&parent), 4, 560);
    record.erase(560, 4).erase(40, 4);
    EXPECT_EQ(record, std::string(640, '\0'));
    EXPECT_TRUE(parents.empty() || parents.rbegin()->first < pid);
    parents.emplace(pid, parent);
  }
  return parents;
}

TEST(GetProcessesInfo, HasParentsWhateverTheNameWhileOthersEnd) {
  const PausedChild named([] { ::prctl(PR_SET_NAME, "a) S 1 (b) 1"); });
  const auto fork_one = [] {
    if (::fork() == 0) ::_exit(0);
    ::wait(nullptr);
  };
  const PausedChild coming_and_going([] {}, fork_one);
  for (int round = 0; round < 100; ++round) {
    const Parents parents = ReadTable();
    ASSERT_EQ(parents.at(::getpid()), ::getppid());
    ASSERT_EQ(parents.at(named.pid()), ::getpid());
  }
}

TEST(ListChildProcesses, NeverFindsAny) {
  int32_t count = 5, child = -7;
  EXPECT_EQ(ListChildProcesses(::getppid(), &child, &count), 0u);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(child, -7);
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
  const struct {
    const char* name;
    Links links;
    Numbers found;
    Numbers expected;  // For process 1.
  } kRows[] = {
      {"elder first, in the table's order",
       {{6, 4}, {9, 1}, {4, 9}, {-3, 1}, {5, -3}, {7, 9}, {8, 6}},
       {},
       {9, -3, 4, 7, 6, 8, 5}},
      {"cycle", {{1, 3}, {2, 1}, {2, 2}, {3, 2}}, {}, {2, 3, 1}},
      {"twice", {{2, 1}, {3, 1}, {2, 1}, {3, 2}, {4, 3}}, {}, {2, 3, 4}},
      {"found before", {{2, 1}, {3, 2}, {4, 1}}, {5, 2}, {5, 2, 4}}};
  for (const auto& row : kRows) {
    EXPECT_EQ(Mark(row.links, row.found, 1), row.expected) << row.name;
  }
}

std::string Records(const std::vector<std::string>& users,
                    short type = USER_PROCESS) {
  std::string file;
  for (const std::string& user : users) {
    utmpx record{};
    record.ut_type = type;
    user.copy(record.ut_user, sizeof record.ut_user);
    file.append(reinterpret_cast<char*>(&record), sizeof record);
  }
  return file;
}

// The names, up to the buffer's zeros at its end, which must be all there.
std::string ActiveUsers(int32_t capacity) {
  std::string buffer(static_cast<size_t>(capacity) + 8, '#');
  EXPECT_EQ(GetActiveUsers(buffer.data(), &capacity), 0u);
  EXPECT_EQ(buffer.substr(static_cast<size_t>(capacity)), "########");
  buffer.resize(static_cast<size_t>(capacity));
  return buffer.substr(0, buffer.find_last_not_of('\0') + 1);
}

TEST_F(ProcessesTest, ListsActiveUsers) {
  const std::string longest(32, 'x');
  const struct {
    std::string file;
    int32_t capacity;
    std::string expected;
  } kRows[] = {
      {Records({"boot"}, BOOT_TIME) + Records({"gone"}, DEAD_PROCESS) +
           Records({"ada", "", longest, "ada", "ad", longest, "adam"}),
       64, "boot\0ada\0"s + longest + "\0ad\0adam"s},
      {Records({"bob", "eve", "bob"}) + "half a record", 8, "bob\0eve"s},
      {Records({"abc", "room", "abc", "x"}), 8, "abc"}};
  for (const auto& [file, capacity, expected] : kRows) {
    WriteFile(_PATH_UTMP, file);
    EXPECT_EQ(ActiveUsers(capacity), expected);
  }
  fs::remove(_PATH_UTMP);
  WriteFile("/run/systemd/sessions/1", "UID=0\nCLASS=user\nSTATE=active\n");
  EXPECT_EQ(ActiveUsers(16), "root");
  fs::remove_all("/run/systemd");
}

// Files in the place of the links; what they hold is what decides.
TEST_F(ProcessesTest, TellsProcessesOf64Bits) {
  EXPECT_EQ(IsProcess64bits(::getpid()), 1u);
  EXPECT_EQ(IsProcess64bits(EndedProcess()), 1u);
  ASSERT_EQ(::mount("none", "/proc", "tmpfs", 0, nullptr), 0);
  const auto is_64_bits = [](std::string_view start, char machine) {
    WriteFile("/proc/77/exe", std::string(start) + std::string(13, '\0') +
                                  machine + std::string(9, '\0'));
    return IsProcess64bits(77);
  };
  EXPECT_EQ(is_64_bits("\177ELF\2", char(EM_AARCH64)), 1u);
  EXPECT_EQ(is_64_bits("\177ELF\1", EM_X86_64), 0u);
  EXPECT_EQ(is_64_bits("#!ELF\1", EM_386), 1u);
  // What the kernel has on record counts first.
  const uint32_t narrow[] = {AT_PHNUM, 56, AT_PHENT, sizeof(Elf32_Phdr)};
  WriteFile("/proc/77/auxv", {reinterpret_cast<const char*>(narrow), 16});
  EXPECT_EQ(is_64_bits("\177ELF\2", char(EM_AARCH64)), 0u);
  EXPECT_EQ(::umount2("/proc", MNT_DETACH), 0);
}

TEST(IsProcessRunning, TellsTheLiving) {
  EXPECT_EQ(IsProcessRunning(::getpid()), 1u);
  errno = 0;
  EXPECT_EQ(IsProcessRunning(EndedProcess()), 0u);
  EXPECT_EQ(errno, ESRCH);
}

TEST(GetProcessFullPath, WritesWhatFits) {
  const std::string path = fs::read_symlink("/proc/self/exe");
  const uint32_t length = static_cast<uint32_t>(path.size());
  std::string buffer(4096, '#');
  uint32_t size = length;
  EXPECT_EQ(GetProcessFullPath(::getpid(), buffer.data(), &size), 0u);
  EXPECT_EQ(buffer, std::string(4096, '#'));
  EXPECT_EQ(size++, length);
  EXPECT_EQ(GetProcessFullPath(::getpid(), buffer.data(), &size), 0u);
  EXPECT_EQ(buffer.substr(0, length + 2), path + "\0#"s);
  EXPECT_EQ(size, length);

  char byte;
  uint32_t none = 0, one = 1;
  EXPECT_EQ(GetProcessFullPath(0, &byte, &one), ZU_PROCESS_BAD_ARGUMENT);
  EXPECT_EQ(GetProcessFullPath(1, &byte, &none), ZU_PROCESS_BAD_ARGUMENT);
  EXPECT_EQ(GetProcessFullPath(EndedProcess(), &byte, &one),
            ZU_PROCESS_NO_PATH);
}

// Whose name looked as if it had been removed while it was still there.
TEST(GetProcessFullPath, OutlivesTheFile) {
  const zu::test::TestTree tree;
  const std::string path = tree.Path("odd (deleted)");
  fs::copy("/bin/sleep", path);
  const PausedChild child(
      [&] { ::execl(path.c_str(), "sleep", "1000", nullptr); });
  fs::remove(path);
  char buffer[PATH_MAX] = {};
  uint32_t size = sizeof buffer;
  EXPECT_EQ(GetProcessFullPath(child.pid(), buffer, &size), 0u);
  EXPECT_EQ(buffer, path);
}

bool IsRefused(pid_t pid) {
  errno = 0;
  return KillProcess(pid) == -1 && errno == ESRCH;
}

TEST(KillProcess, SignalsTheGroupAndNobodyElse) {
  PausedChild leader([] { ::setpgid(0, 0); });
  PausedChild member([&] { ::setpgid(0, leader.pid()); });
  PausedChild bystander([] { ::setpgid(0, 0); });
  EXPECT_EQ(KillProcess(member.pid()), 0);
  EXPECT_EQ(leader.End(), SIGTERM);
  EXPECT_EQ(member.End(), SIGTERM);
  for (const pid_t none : {EndedProcess(), -1}) EXPECT_TRUE(IsRefused(none));
  EXPECT_EQ(bystander.End(), SIGKILL);
}

// As process 1 of a container, in a group of outside and in group 1.
TEST_F(ProcessesTest, SignalsNobodyForGroupsThatCannotBeNamed) {
  PausedChild outside([] {
    ::setsid();
    if (::unshare(CLONE_NEWPID) != 0) ::_exit(2);
    PausedChild first([] {
      const bool outer_group = IsRefused(1);
      ::setsid();
      PausedChild bystander;
      const bool first_group = IsRefused(1);
      ::_exit(outer_group && first_group && bystander.End() == SIGKILL ? 0 : 1);
    });
    ::_exit(first.End() == 0 ? 0 : 1);
  });
  EXPECT_EQ(outside.End(), 0);
}

TEST(GetCurrentProcessName, CutsToWholeCharacters) {
  char* const real = program_invocation_short_name;
  const auto read = [](const char* name, uint64_t size) {
    program_invocation_short_name = const_cast<char*>(name);
    std::string buffer(10, '#');
    EXPECT_EQ(GetCurrentProcessName(buffer.data(), &size), 1u);
    return std::to_string(size) + buffer;
  };
  EXPECT_EQ(read("agent", 6), "5agent\0####"s);
  EXPECT_EQ(read("agent", 5), "5##########");
  EXPECT_EQ(read("n\u00E4me", 5), "4n\u00E4m\0#####"s);
  EXPECT_EQ(read("\u20AC\u20AC\u20AC", 4), "3\u20AC\0######"s);
  EXPECT_EQ(read("\U0001D11E\U0001D11E", 8), "4\U0001D11E\0#####"s);
  program_invocation_short_name = const_cast<char*>("\xFF");
  uint64_t size = 16;
  EXPECT_EQ(GetCurrentProcessName(nullptr, &size), 0u);
  EXPECT_EQ(size, 16u);
  program_invocation_short_name = real;
}

}  // namespace
