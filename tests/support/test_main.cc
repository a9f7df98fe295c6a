// The main of every test program that uses the test root or child processes.

#include <gmock/gmock.h>

#include <algorithm>
#include <string_view>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/process_state.h"
#include "tests/support/test_root.h"

extern "C" {
// Only there in a build with the thread sanitizer.
[[gnu::weak]] void __tsan_init();
// Called by it. Forked children of a process with threads are what some tests
// are about, and hosts that exit in a signal handler.
[[gnu::visibility("default")]] const char* __tsan_default_options() {
  return "die_after_fork=0:report_signal_unsafe=0";
}
}

namespace {

// The thread sanitizer starts a thread of its own together with the first one
// of ours. Tests that count threads are to find it from the beginning.
void SettleThreads() {
  if (__tsan_init == nullptr) return;
  std::thread([] {}).join();
  constexpr int kQuiet_ms = 20;
  (void)zu::test::WaitUntil([last = 0L, same = 0]() mutable {
    const auto count = static_cast<long>(zu::test::CountThreads());
    same = count == last ? same + 1 : 0;
    last = count;
    return same == kQuiet_ms;
  });
}

}  // namespace

int main(int argc, char** argv) {
  if (!std::any_of(argv, argv + argc, [](std::string_view argument) {
        return argument == "--gtest_list_tests";
      })) {
    zu::test::EnterTestRoot(argv);
  }
  ::testing::InitGoogleMock(&argc, argv);
  SettleThreads();
  if (const auto status = zu::test::RunNamedScenario(argc, argv)) {
    return *status;
  }
  return RUN_ALL_TESTS();
}
