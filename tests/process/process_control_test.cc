// Single processes and their users, through the exported names.

#include <elf.h>
#include <paths.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <utmpx.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "tests/process/paused_child.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"
#include "tests/support/test_tree.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using zu::test::EndedProcess;
using zu::test::PausedChild;
using zu::test::WriteFile;

using ProcessControlTest = zu::test::RootedTest;

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

TEST_F(ProcessControlTest, ListsActiveUsers) {
  const std::string longest(32, 'x');
  struct Row {
    std::string file;
    int32_t capacity;
    std::string expected;
  };
  for (const Row& row : std::vector<Row>{
           {Records({"boot"}, BOOT_TIME) + Records({"gone"}, DEAD_PROCESS) +
                Records({"ada", "", longest, "ada", "ad", longest, "adam"}),
            64, "boot\0ada\0"s + longest + "\0ad\0adam"s},
           {Records({"bob"}), 3, ""},
           {Records({"bob", "eve", "bob", "z"}), 8, "bob\0eve"s},
           {Records({"abc", "room", "abc", "x"}), 8, "abc"},
           {Records({"a", "as_long_", "b"}) + "half a record", 8, "a"},
       }) {
    WriteFile(_PATH_UTMP, row.file);
    EXPECT_EQ(ActiveUsers(row.capacity), row.expected) << row.capacity;
  }
  char guard = '#';
  for (const int32_t none : {0, -1}) GetActiveUsers(&guard, &none);
  EXPECT_EQ(guard, '#');

  fs::remove(_PATH_UTMP);
  for (const char* const session : {"1", "2"}) {
    WriteFile("/run/systemd/sessions/"s + session,
              "UID=0\nCLASS=user\nSTATE=active\n");
  }
  EXPECT_EQ(ActiveUsers(16), "root");
  fs::remove_all("/run/systemd");
}

// Files in the place of the links; what they hold is what decides.
TEST_F(ProcessControlTest, TellsProcessesOf64Bits) {
  EXPECT_EQ(IsProcess64bits(::getpid()), 1u);
  EXPECT_EQ(IsProcess64bits(EndedProcess()), 1u);
  ASSERT_EQ(::mount("none", "/proc", "tmpfs", 0, nullptr), 0);
  const auto is_64_bits = [](std::string_view start, char machine) {
    WriteFile("/proc/77/exe", std::string(start) + std::string(13, '\0') +
                                  machine + std::string(9, '\0'));
    return IsProcess64bits(77);
  };
  EXPECT_EQ(is_64_bits("\177ELF\2", char(EM_AARCH64)), 1u);
  EXPECT_EQ(is_64_bits("\177ELF\2", char(EM_RISCV)), 1u);
  EXPECT_EQ(is_64_bits("\177ELF\1", EM_386), 0u);
  EXPECT_EQ(is_64_bits("\177ELF\1", EM_X86_64), 0u);
  EXPECT_EQ(is_64_bits("\177ELF\1", EM_PPC), 0u);
  EXPECT_EQ(is_64_bits("#!ELF\1", EM_386), 1u);
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
  uint32_t none = 0;
  uint32_t one = 1;
  EXPECT_EQ(GetProcessFullPath(0, &byte, &one), ZU_PROCESS_BAD_ARGUMENT);
  EXPECT_EQ(GetProcessFullPath(1, nullptr, &one), ZU_PROCESS_BAD_ARGUMENT);
  EXPECT_EQ(GetProcessFullPath(1, &byte, &none), ZU_PROCESS_BAD_ARGUMENT);
  EXPECT_EQ(GetProcessFullPath(EndedProcess(), &byte, &one),
            ZU_PROCESS_NO_PATH);
}

// What happens to the file of a running program, and its path then.
TEST(GetProcessFullPath, OutlivesTheFile) {
  struct Row {
    const char* name;
    std::vector<const char*> changes;  // As of TestTree.
  };
  for (const auto& [name, changes] :
       {Row{"odd (deleted)", {}}, Row{"out (deleted)", {"-out (deleted)"}},
        Row{"old", {"-old", "old (deleted)=other"}}}) {
    const zu::test::TestTree tree;
    const std::string path = tree.Path(name);
    fs::copy("/bin/sleep", path);
    const char* const argv[] = {"sleep", "1000", nullptr};
    pid_t child = -1;
    // Comes back when the program is in place.
    ASSERT_EQ(::posix_spawn(&child, path.c_str(), nullptr, nullptr,
                            const_cast<char**>(argv), nullptr),
              0);
    fs::create_hard_link(path, tree.Path("link"));
    for (const char* const change : changes) tree.Put(change);
    char buffer[PATH_MAX] = {};
    uint32_t size = sizeof buffer;
    EXPECT_EQ(GetProcessFullPath(child, buffer, &size), 0u);
    EXPECT_EQ(buffer, path);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
  }
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
TEST_F(ProcessControlTest, SignalsNobodyForGroupsThatCannotBeNamed) {
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
  EXPECT_EQ(read("\U0001D11E\U0001D11E", 9), "4\U0001D11E\U0001D11E\0#"s);
  program_invocation_short_name = const_cast<char*>("\xFF");
  uint64_t size = 16;
  EXPECT_EQ(GetCurrentProcessName(nullptr, &size), 0u);
  EXPECT_EQ(size, 16u);
  program_invocation_short_name = real;
}

}  // namespace
