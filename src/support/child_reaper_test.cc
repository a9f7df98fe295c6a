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

// A child that lives until it is killed.
pid_t ForkSleeper() {
  const pid_t child = ::fork();
  while (child == 0) ::pause();
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

// Each scenario starts with a reaper that was never used.
const test::ChildScenario kScenarios[] = {
    {"ThreadLivesWhileThereIsSomethingToReap",
     [](const test::Arguments&) {
       const size_t before = CountThreads();
       for (int round = 0; round < 2; ++round) {
         const pid_t children[] = {ForkSleeper(), ForkSleeper()};
         ReapWhenItEnds(children[0]);
         ReapWhenItEnds(children[1]);
         EXPECT_EQ(CountThreads(), before + 1);
         EXPECT_TRUE(IsReapedAfterKill(children[1]));
         EXPECT_TRUE(IsReapedAfterKill(children[0]));
         EXPECT_TRUE(WaitUntil([=] { return CountThreads() == before; }));
       }
       return 0;
     }},
    {"StopsWithChildrenLeft",
     [](const test::Arguments&) {
       const size_t before = CountThreads();
       const pid_t child = ForkSleeper();
       ReapWhenItEnds(child);
       StopChildReaper();
       EXPECT_TRUE(WaitUntil([=] { return CountThreads() == before; }));
       EXPECT_TRUE(IsOurChild(child));
       StopChildReaper();
       ReapWhenItEnds(child);  // Takes no new thread.
       EXPECT_EQ(CountThreads(), before);
       ::kill(child, SIGKILL);
       return 0;
     }},
    {"ForkedChildHasAReaperOfItsOwn",
     [](const test::Arguments&) {
       const pid_t parents = ForkSleeper();
       ReapWhenItEnds(parents);
       const pid_t forked = ::fork();
       if (forked == 0) {
         // A new thread must not get the place of the parent's, which the
         // thread sanitizer takes for still running.
         SetDefaultStackSize(size_t{1} << 24);
         const pid_t own = ForkSleeper();
         ReapWhenItEnds(own);
         const bool reaped = IsReapedAfterKill(own);
         StopChildReaper();
         ::_exit(reaped ? 0 : 1);
       }
       int status = -1;
       EXPECT_EQ(::waitpid(forked, &status, 0), forked);
       EXPECT_EQ(status, 0);
       EXPECT_TRUE(IsReapedAfterKill(parents));
       return 0;
     }},
    {"WithoutAThreadTheNextCallSweeps",
     [](const test::Arguments&) {
       SetDefaultStackSize(size_t{1} << 46);  // No thread can be made.
       const size_t before = CountThreads();
       const pid_t first = ForkSleeper();
       ReapWhenItEnds(first);
       EXPECT_EQ(CountThreads(), before);
       ::kill(first, SIGKILL);
       siginfo_t info;
       EXPECT_EQ(
           ::waitid(P_PID, static_cast<id_t>(first), &info, WEXITED | WNOWAIT),
           0);
       const pid_t second = ForkSleeper();
       ReapWhenItEnds(second);
       EXPECT_FALSE(IsOurChild(first));
       SetDefaultStackSize(size_t{1} << 23);
       const pid_t third = ForkSleeper();
       ReapWhenItEnds(third);
       EXPECT_TRUE(IsReapedAfterKill(second));
       EXPECT_TRUE(IsReapedAfterKill(third));
       return 0;
     }},
};

TEST(ChildReaperTest, InAProcessOfItsOwn) {
  for (const test::ChildScenario& scenario : kScenarios) {
    const test::ChildResult result = test::RunInChild(scenario);
    EXPECT_EQ(result.status, 0) << scenario.name << '\n' << result.output;
  }
}

}  // namespace
}  // namespace zu
