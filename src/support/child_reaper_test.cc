#include "support/child_reaper.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>

#include "tests/support/child_process.h"
#include "tests/support/process_state.h"
#include "tests/support/wait_until.h"

namespace zu {
namespace {

using test::CountThreads;
using test::IsOurChild;
using test::WaitUntil;

[[maybe_unused]] const int kAtExit = std::atexit(&StopChildReaper);

// A child that lives until it is killed, and is to be reaped then.
pid_t PendingChild() {
  const pid_t child = ::fork();
  while (child == 0) ::pause();
  ReapWhenItEnds(child);
  return child;
}

bool IsReapedAfterKill(pid_t child) {
  ::kill(child, SIGKILL);
  return WaitUntil([child] { return !IsOurChild(child); });
}

void SetDefaultStackSize(size_t size) {
  pthread_attr_t attributes;
  ::pthread_getattr_default_np(&attributes);
  ::pthread_attr_setstacksize(&attributes, size);
  EXPECT_EQ(::pthread_setattr_default_np(&attributes), 0);
}

// The thread lives while there is something to reap; stopping it leaves
// children, and no call makes another one then.
const test::ChildScenario kLife("Life", [](const test::Arguments&) {
  const size_t before = CountThreads();
  for (int round = 0; round < 2; ++round) {
    const pid_t children[] = {PendingChild(), PendingChild()};
    EXPECT_EQ(CountThreads(), before + 1);
    EXPECT_TRUE(IsReapedAfterKill(children[1]));
    EXPECT_TRUE(IsReapedAfterKill(children[0]));
    EXPECT_TRUE(WaitUntil([=] { return CountThreads() == before; }));
  }
  const pid_t left = PendingChild();
  StopChildReaper();
  EXPECT_TRUE(WaitUntil([=] { return CountThreads() == before; }));
  EXPECT_TRUE(IsOurChild(left));
  StopChildReaper();
  ReapWhenItEnds(left);
  EXPECT_EQ(CountThreads(), before);
  ::kill(left, SIGKILL);
  return 0;
});

const test::ChildScenario kForked("Forked", [](const test::Arguments&) {
  const pid_t parents = PendingChild();
  const pid_t forked = ::fork();
  if (forked == 0) {
    // A new thread must not get the place of the parent's, which the thread
    // sanitizer takes for still running.
    SetDefaultStackSize(size_t{1} << 24);
    const bool reaped = IsReapedAfterKill(PendingChild());
    StopChildReaper();
    ::_exit(reaped ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(forked, &status, 0), forked);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(IsReapedAfterKill(parents));
  return 0;
});

// The next call sweeps, and one that can have a thread again starts it.
const test::ChildScenario kNoThread("NoThread", [](const test::Arguments&) {
  SetDefaultStackSize(size_t{1} << 46);  // More than there is.
  const size_t before = CountThreads();
  const pid_t first = PendingChild();
  EXPECT_EQ(CountThreads(), before);
  ::kill(first, SIGKILL);
  siginfo_t info;
  ::waitid(P_PID, static_cast<id_t>(first), &info, WEXITED | WNOWAIT);
  const pid_t second = PendingChild();
  EXPECT_FALSE(IsOurChild(first));
  SetDefaultStackSize(size_t{1} << 23);
  EXPECT_TRUE(IsReapedAfterKill(PendingChild()));
  EXPECT_TRUE(IsReapedAfterKill(second));
  return 0;
});

// Each starts with a reaper that was never used.
TEST(ChildReaperTest, InAProcessOfItsOwn) {
  for (const auto* scenario : {&kLife, &kForked, &kNoThread}) {
    const test::ChildResult result = test::RunInChild(*scenario);
    EXPECT_EQ(result.status, 0) << scenario->name << '\n' << result.output;
  }
}

}  // namespace
}  // namespace zu
