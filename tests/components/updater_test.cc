// The updater: what it is started with, and by which hosts.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "ZuHelper.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_tool.h"
#include "tests/support/process_state.h"
#include "tests/support/test_root.h"
#include "tests/support/wait_until.h"

namespace {

using zu::test::HasChildren;
using zu::test::WaitUntil;
using zu::test::WriteFile;

constexpr char kUpdater[] = "/Library/Zu Agent/updater";
constexpr char kDirectory[] = "/Library/Zu Agent/work";
constexpr char kRegistry[] = "MONO_REGISTRY_PATH";

// In this order: directory, arguments, environment, descriptors (ls opens one
// itself), whether the signals are clean (the shell changes its own when it
// waits, so they are read first) and the process group its own.
constexpr char kReport[] = R"sh(#!/bin/sh
clean=$(grep -c '^SigBlk:.0*$\|^SigIgn:.*[02468ace]...$' /proc/$$/status)
pwd -P
printf '<%s>\n' "$@"
tr '\000' '\n' </proc/$$/environ
ls /proc/self/fd
echo $clean
[ "$(cut -d ' ' -f 5 /proc/$$/stat)" = $$ ] && echo own group
)sh";

using UpdaterTest = zu::test::RootedTest;

// A host that blocks every signal and ignores SIGPIPE, with a descriptor that
// children inherit and a standard one that they do not.
const zu::test::ChildScenario kHost("Host", [](const zu::test::Arguments&) {
  ::signal(SIGPIPE, SIG_IGN);
  sigset_t all;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
  ::dup2(STDOUT_FILENO, 77);
  ::fcntl(STDOUT_FILENO, F_SETFD, FD_CLOEXEC);
  ::setenv(kRegistry, "", 1);
  EXPECT_EQ(ZuStartZuUpdater(kUpdater, kDirectory, "--one", "2 3"), 1u);
  EXPECT_TRUE(WaitUntil([] { return !HasChildren(); }));
  return 0;
});

TEST_F(UpdaterTest, StartsCleanly) {
  WriteFile(kUpdater, kReport, 0755);
  std::filesystem::create_directory(kDirectory);
  const zu::test::ChildResult result = zu::test::RunInChild(kHost);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output,
            "/Library/Zu Agent/work\n<--one>\n<2 3>\n"
            "DYLD_LIBRARY_PATH=/Library/Zu Agent\nMONO_REGISTRY_PATH=\n"
            "0\n1\n2\n3\n2\nown group\n");
}

TEST_F(UpdaterTest, RefusesWhatCannotWork) {
  constexpr char kPlain[] = "/Library/Zu Agent/plain";
  WriteFile(kUpdater, "#!/bin/sh\n", 0755);
  WriteFile(kPlain, "#!/bin/sh\n");
  std::filesystem::create_directory(kDirectory);
  std::filesystem::current_path("/Library/Zu Agent");
  const struct {
    const char* arguments[4];
    const char* registry = "/reg";
    uint32_t started = 0;
  } cases[] = {
      {{kUpdater, "work", "a", "b"}, "/reg", 1},
      {{kUpdater, kDirectory, "a", "b"}, nullptr},
      {{kPlain, kDirectory, "a", "b"}},
      {{kDirectory, kDirectory, "a", "b"}},
      {{"./updater", kDirectory, "a", "b"}},
      {{kUpdater, kPlain, "a", "b"}},
      {{kUpdater, "", "a", "b"}},
      {{kUpdater, kDirectory, nullptr, "b"}},
      {{kUpdater, kDirectory, "a", ""}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    ::unsetenv(kRegistry);
    if (c.registry != nullptr) ::setenv(kRegistry, c.registry, 1);
    const auto& [program, directory, first, second] = c.arguments;
    EXPECT_EQ(ZuStartZuUpdater(program, directory, first, second), c.started);
    EXPECT_TRUE(c.started != 0 || !HasChildren());
    EXPECT_TRUE(WaitUntil([] { return !HasChildren(); }));
  }
}

}  // namespace
