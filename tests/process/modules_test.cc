// The images of real processes, some of which are out to harm.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <link.h>
#include <linux/capability.h>
#include <linux/userfaultfd.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <filesystem>

#include "ZuHelper.h"
#include "tests/server/signed_test.h"
#include "tests/support/paused_child.h"
#include "tests/support/system_log.h"

namespace zu::test {
namespace {

using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::StartsWith;
using Paths = std::vector<std::string>;

// Absent when the first method fails.
std::optional<Paths> ReadModules(pid_t pid) {
  std::string buffer(1 << 20, '#');
  auto size = static_cast<uint32_t>(buffer.size());
  const uint32_t status = GetProcessModules_Old(pid, buffer.data(), &size);
  EXPECT_TRUE(status == ZU_PROCESS_OK || status == ZU_PROCESS_NO_DATA);
  if (status != ZU_PROCESS_OK) return std::nullopt;
  Paths paths;
  for (size_t at = 0; at < size; at += paths.back().size() + 1) {
    paths.emplace_back(buffer.c_str() + at);
  }
  return paths;
}

// With what a library brings along, and one in a name space of its own; but
// without the kernel's image, which has no path.
TEST(Modules, AreWhatIsLoaded) {
  const PausedChild child([] {
    ::dlopen("libresolv.so.2", RTLD_NOW);
    ::dlmopen(LM_ID_NEWLM, "libutil.so.1", RTLD_NOW);
  });
  const Paths paths = ReadModules(child.pid()).value();
  EXPECT_EQ(paths.front(), std::filesystem::read_symlink("/proc/self/exe"));
  EXPECT_THAT(paths, Each(StartsWith("/")));
  for (const char* name :
       {"/libZuHelper.so", "/libc.so.6", "/libresolv.so.2", "/libutil.so.1"}) {
    EXPECT_THAT(paths, Contains(HasSubstr(name)));
  }
}

// Such a program has no loader.
TEST(Modules, OfAStaticProgramAreItself) {
  const PausedChild child([] {
    ::ptrace(PTRACE_TRACEME);
    ::execl("/sbin/ldconfig", "ldconfig", nullptr);
  });
  ::waitpid(child.pid(), nullptr, 0);
  EXPECT_EQ(ReadModules(child.pid()),
            Paths{std::filesystem::canonical("/sbin/ldconfig")});
}

TEST(Modules, AreWrittenAsFarAsTheyFit) {
  std::string all(1 << 16, '#');
  auto needed = static_cast<uint32_t>(all.size());
  ASSERT_EQ(GetProcessModules(::getpid(), all.data(), &needed), ZU_PROCESS_OK);
  const auto first = static_cast<uint32_t>(all.find('\0') + 1);
  const size_t last = all.rfind('\0', needed - 2) + 1;
  for (const auto& [capacity, written] :
       {std::pair(1u, size_t{0}), {first, first}, {needed - 1, last}}) {
    std::string buffer(all.size(), '#');
    uint32_t size = capacity;
    EXPECT_EQ(GetProcessModules(::getpid(), buffer.data(), &size), 0u);
    EXPECT_EQ(size, needed);
    buffer.resize(buffer.find_last_not_of('#') + 1);
    EXPECT_EQ(buffer, all.substr(0, written));
  }
  uint32_t none = 0;
  EXPECT_EQ(GetProcessModules(0, all.data(), &needed), ZU_PROCESS_BAD_ARGUMENT);
  EXPECT_EQ(GetProcessModules(1, all.data(), &none), ZU_PROCESS_BAD_ARGUMENT);
}

// Of a program that loads and unloads libraries all the time.
TEST(Modules, AreOfOneMoment) {
  const PausedChild child(
      [] {},
      [] {
        void* const one = ::dlopen("libutil.so.1", RTLD_NOW);
        void* const other = ::dlopen("libresolv.so.2", RTLD_NOW);
        ::dlclose(one);
        ::dlclose(other);
      });
  int read = 0;
  for (int i = 0; i < 2000; ++i) {
    const auto paths = ReadModules(child.pid());
    if (!paths) continue;
    ++read;
    for (const auto& path : *paths) ASSERT_EQ(path[0], '/') << path;
  }
  EXPECT_GT(read, 1000);
}

// With its NUL, when it begins on a page.
constexpr size_t kMaxPath = 65536;

// The last bytes before memory that cannot be read. Their only NUL, if any, is
// behind `length` others.
char* TextBeforeHole(size_t size, size_t length) {
  void* memory = ::mmap(nullptr, 3 * kMaxPath, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  char* hole = std::fill_n(static_cast<char*>(memory), 2 * kMaxPath, 'x');
  ::mprotect(hole, kMaxPath, PROT_NONE);
  if (length < size) hole[length - size] = '\0';
  return hole - size;
}

link_map& LastImage() {
  auto* last = static_cast<link_map*>(::dlopen(nullptr, RTLD_LAZY));
  while (last->l_next != nullptr) last = last->l_next;
  return *last;
}

// A page that is not there before this process has said what it is.
char* MapWatched(int& watch) {
  watch = static_cast<int>(::syscall(SYS_userfaultfd, O_CLOEXEC | O_NONBLOCK));
  uffdio_api api = {UFFD_API, 0, 0};
  ::ioctl(watch, UFFDIO_API, &api);
  void* const page = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  uffdio_register request = {{reinterpret_cast<uintptr_t>(page), 4096},
                             UFFDIO_REGISTER_MODE_MISSING,
                             0};
  ::ioctl(watch, UFFDIO_REGISTER, &request);
  return static_cast<char*>(page);
}

// Does its harm to the last image of its loader's list.
TEST(Modules, OfAHarmfulProcessAreReadInBounds) {
  Paths others = ReadModules(::getpid()).value();
  others.pop_back();
  Paths with_long_path = others;
  with_long_path.emplace_back(kMaxPath - 1, 'x');
  const struct {
    const char* name;
    void (*harm)(link_map& last);
    std::optional<Paths> modules;
  } kRows[] = {
      {"cycle", [](auto& last) { last.l_next = last.l_prev; }, std::nullopt},
      {"no end", [](auto& last) { last.l_name = TextBeforeHole(9, 9); },
       others},
      {"long path",
       [](auto& last) { last.l_name = TextBeforeHole(kMaxPath, kMaxPath - 1); },
       with_long_path},
      {"many long paths",
       [](auto& last) {
         last.l_name = TextBeforeHole(2 * kMaxPath, 2 * kMaxPath);
         static std::vector<link_map> more(60000, last);
         for (auto& each : more)
           each.l_next = std::exchange(last.l_next, &each);
       },
       std::nullopt},
      {"path withheld",
       [](auto& last) {
         int watch;
         last.l_name = MapWatched(watch);
       },
       others}};
  for (const auto& row : kRows) {
    PausedChild child([&row] { row.harm(LastImage()); });
    EXPECT_EQ(ReadModules(child.pid()), row.modules) << row.name;
    EXPECT_EQ(WTERMSIG(child.End()), SIGKILL);  // It did not fall itself.
  }
}

// Its list ends in a page that comes and goes, and leads nowhere from there: it
// is read again and again, without waiting for the page. (A reading may just
// have seen it.)
TEST(Modules, DoNotWaitForPagesThatAreTakenAway) {
  auto* const waits =
      static_cast<int*>(::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE,
                               MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  static int watch;
  static char* page;
  alignas(4096) static link_map content[4096 / sizeof(link_map) + 1];
  content->l_next = reinterpret_cast<link_map*>(8);
  const PausedChild child(
      [] {
        page = MapWatched(watch);
        LastImage().l_next = reinterpret_cast<link_map*>(page);
      },
      [waits] {
        uffdio_copy copy = {reinterpret_cast<uintptr_t>(page),
                            reinterpret_cast<uintptr_t>(content), 4096, 0, 0};
        ::ioctl(watch, UFFDIO_COPY, &copy);
        ::usleep(20'000);
        ::madvise(page, 4096, MADV_DONTNEED);
        pollfd asked = {watch, POLLIN, 0};
        *waits += ::poll(&asked, 1, 5);
      });
  for (int i = 0; i < 40; ++i)
    EXPECT_EQ(ReadModules(child.pid()), std::nullopt);
  EXPECT_LE(*waits, 2);  // Of some ten times.
  ::munmap(waits, sizeof(int));
}

// Without capabilities, a process may not read one that has some.
const ChildScenario kRefused("Refused", [](const Arguments& arguments) {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct nothing[2] = {};
  EXPECT_EQ(::syscall(SYS_capset, &header, nothing), 0);
  // It can always read itself.
  uint32_t task = 0;
  EXPECT_EQ(::prctl(PR_SET_DUMPABLE, 0), 0);
  EXPECT_EQ(GetMachTask(::getpid(), &task), 0);
  EXPECT_TRUE(ReadModules(::getpid()));
  gOSVersion = static_cast<uint32_t>(std::stoul(arguments.at(1)));
  char buffer[8] = "#######";
  uint32_t size = sizeof buffer;
  const uint32_t status =
      GetProcessModules(std::stoi(arguments[0]), buffer, &size);
  EXPECT_STREQ(buffer, status == ZU_PROCESS_OK ? "/a" : "#######");
  EXPECT_EQ(size, status == ZU_PROCESS_OK ? 3 : sizeof buffer);
  return static_cast<int>(status);
});

using SecondMethod = SignedTest;

TEST_F(SecondMethod, IsForWhatTheFirstCannotRead) {
  const std::string other = std::to_string(::getpid());
  EXPECT_EQ(RunInChild(kRefused, {other, "10016000"}).status, 5);  // No tool.
  const RecordingTool tool("/usr/bin/vmmap", "__TEXT /a\n");
  EXPECT_EQ(RunInChild(kRefused, {"1", "10014000"}).status, 5);
  EXPECT_EQ(RunInChild(kRefused, {"1", "10013999"}).status, 0);
  EXPECT_EQ(RunInChild(kRefused, {other, "10016000"}).status, 0);
  EXPECT_EQ(tool.CommandLines(), "|-w|1\n|-w|" + other + "\n");
}

const ChildScenario kVendors("Vendors", [](const Arguments&) {
  SystemLog log;
  gOSVersion = 10016000;
  char buffer[] = "#";
  uint32_t size = 7;
  EXPECT_EQ(GetProcessModulesImpl(::getpid(), buffer, &size), ZU_PROCESS_OK);
  EXPECT_EQ(size, 7u);
  EXPECT_STREQ(buffer, "#");
  EXPECT_EQ(
      log.Take(),
      Paths{"GetProcessModulesImpl(): skip a process signed by Zubrant, (" +
            std::to_string(::getpid()) + ")"});
  return 0;
});

TEST_F(SecondMethod, SkipsTheVendorsProcesses) { Expect(kVendors); }

}  // namespace
}  // namespace zu::test
