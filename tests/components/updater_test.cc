// The updater: what it is started with, and by which hosts.

#include <gmock/gmock.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

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
// itself), whether the signals are clean and the process group its own.
constexpr char kReport[] = R"sh(#!/bin/sh
pwd -P
printf '<%s>\n' "$@"
tr '\000' '\n' </proc/$$/environ
ls /proc/self/fd
grep -c '^SigBlk:.0*$\|^SigIgn:.*[02468ace]...$' /proc/self/status
[ "$(cut -d ' ' -f 5 /proc/$$/stat)" = $$ ] && echo own group
)sh";

class UpdaterTest : public zu::test::RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (IsSkipped()) return;
    WriteFile(kUpdater, kReport, 0755);
    std::filesystem::create_directories(kDirectory);
  }
};

// A host with a descriptor that children inherit. The argument says how it
// treats signals and its children.
const zu::test::ChildScenario kHost(
    "Host", [](const zu::test::Arguments& arguments) {
      const std::string& kind = arguments[0];
      std::jthread thief;
      if (kind == "steals") thief = zu::test::StealChildren();
      if (kind == "ignores") ::signal(SIGCHLD, SIG_IGN);
      if (kind == "blocks") ::signal(SIGPIPE, SIG_IGN);
      sigset_t blocked;
      kind == "blocks" ? sigfillset(&blocked) : sigemptyset(&blocked);
      ::pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
      ::dup2(STDOUT_FILENO, 77);
      ::setenv(kRegistry, "", 1);
      EXPECT_EQ(ZuStartZuUpdater(kUpdater, kDirectory, "--one", "2 3"), 1u);
      EXPECT_TRUE(WaitUntil([] { return !HasChildren(); }));
      return 0;
    });

TEST_F(UpdaterTest, EveryHostsUpdaterStartsAlike) {
  for (const char* kind : {"plain", "blocks", "ignores", "steals"}) {
    const zu::test::ChildResult result = zu::test::RunInChild(kHost, {kind});
    EXPECT_EQ(result.status, 0) << kind;
    EXPECT_EQ(result.output,
              "/Library/Zu Agent/work\n<--one>\n<2 3>\n"
              "DYLD_LIBRARY_PATH=/Library/Zu Agent\nMONO_REGISTRY_PATH=\n"
              "0\n1\n2\n3\n2\nown group\n")
        << kind;
  }
}

TEST_F(UpdaterTest, RefusesWhatCannotWork) {
  constexpr char kPlain[] = "/Library/Zu Agent/plain";
  WriteFile(kPlain, "#!/bin/sh\n");
  std::filesystem::current_path("/Library/Zu Agent");
  const struct {
    const char* arguments[4];
    const char* registry = "/reg";
    uint32_t started = 0;
  } cases[] = {
      {{kUpdater, kDirectory, "a", "b"}, "/reg", 1},
      {{kUpdater, "work", "a", "b"}, "/reg", 1},
      {{kUpdater, kDirectory, "a", "b"}, nullptr},
      {{kPlain, kDirectory, "a", "b"}},
      {{kDirectory, kDirectory, "a", "b"}},
      {{"./updater", kDirectory, "a", "b"}},
      {{kUpdater, kPlain, "a", "b"}},
      {{kUpdater, "none", "a", "b"}},
      {{nullptr, kDirectory, "a", "b"}},
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
