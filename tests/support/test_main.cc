// The main of every test program that uses the test root or child processes.

#include <gmock/gmock.h>

#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/process_state.h"
#include "tests/support/test_root.h"

extern "C" {
// Only there in a build with the thread sanitizer.
[[gnu::weak]] void __tsan_init();
// Called by it. Forked children of a process with threads are what some tests
// are about.
[[gnu::visibility("default")]] const char* __tsan_default_options() {
  return "die_after_fork=0";
}
}

namespace {

// The thread sanitizer starts a thread of its own together with the first one
// of ours. Tests that count threads are to find it from the beginning.
void SettleThreads() {
  if (__tsan_init == nullptr) return;
  std::thread([] {}).join();
  (void)zu::test::WaitUntil([] { return zu::test::CountThreads() == 2; });
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleMock(&argc, argv);
  if (!GTEST_FLAG_GET(list_tests)) zu::test::EnterTestRoot();
  SettleThreads();
  if (const auto status = zu::test::RunNamedScenario(argc, argv)) {
    return *status;
  }
  return RUN_ALL_TESTS();
}
