// Loading and unloading the built library, as a host does it at run time.

#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "build_values.h"
#include "tests/support/child_process.h"
#include "tests/support/loaded_library.h"
#include "tests/support/process_state.h"
#include "tests/support/test_root.h"
#include "tests/support/wait_until.h"

namespace {

using zu::test::Arguments;
using zu::test::ChildScenario;
using zu::test::CountThreads;
using zu::test::LoadedLibrary;
using zu::test::WaitUntil;

constexpr char kSocket[] = ZU_SOCKET_DIRECTORY "/" ZU_AGENT_SERVICE_NAME;

bool g_host_was_called = false;

LoadedLibrary LoadWithServer() {
  LoadedLibrary library = zu::test::LoadLibrary();
  EXPECT_EQ(ZU_FIND(library, ZuStartServer)(), 0u);
  EXPECT_TRUE(WaitUntil([] { return std::filesystem::exists(kSocket); }));
  return library;
}

}  // namespace

// A host's own function of the same name, which a dynamic symbol look-up would
// find before the library's.
uint32_t StartServer(void) {
  g_host_was_called = true;
  return 0;
}

namespace {

// Nothing of the library may stay: what ran on would run into unmapped code.
const ChildScenario kUnloads("Unloads", [](const Arguments&) {
  const size_t before = CountThreads();
  LoadedLibrary library = LoadWithServer();
  EXPECT_FALSE(g_host_was_called);
  EXPECT_GE(*ZU_FIND(library, gOSVersion), 1000000u);
  library.reset();
  EXPECT_EQ(::dlopen(ZU_TEST_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
  EXPECT_TRUE(WaitUntil([=] { return CountThreads() == before; }));
  return 0;
});

bool g_is_forked = false;

// A forked child that exits in the ordinary way must not take down what its
// parent still uses; the parent's own exit, with the server running, must.
const ChildScenario kForks("Forks", [](const Arguments&) {
  LoadedLibrary library = LoadWithServer();
  const size_t threads = CountThreads();
  const pid_t child = ::fork();
  if (child == 0) {
    g_is_forked = true;
    std::exit(0);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(std::filesystem::exists(kSocket));
  EXPECT_EQ(CountThreads(), threads);
  EXPECT_EQ(ZU_FIND(library, ZuBroadcastMessageWithNoReply)("x", 1), 0u);
  (void)library.release();  // The exit handlers are to find it.
  return 0;
});

using LoadTest = zu::test::RootedTest;

TEST_F(LoadTest, InAProcessOfItsOwn) {
  for (const ChildScenario* scenario : {&kUnloads, &kForks}) {
    const zu::test::ChildResult result = zu::test::RunInChild(*scenario);
    EXPECT_EQ(result.status, 0) << scenario->name << '\n' << result.output;
    EXPECT_FALSE(std::filesystem::exists(kSocket)) << scenario->name;
  }
}

}  // namespace

// For the leak sanitizer: a forked child has its parent's memory without the
// threads that use it.
extern "C" [[gnu::visibility("default")]] int __lsan_is_turned_off() {
  return g_is_forked ? 1 : 0;
}
