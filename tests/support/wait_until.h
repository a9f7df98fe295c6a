// Waiting for a state that no event announces.
#ifndef ZU_TESTS_SUPPORT_WAIT_UNTIL_H_
#define ZU_TESTS_SUPPORT_WAIT_UNTIL_H_

#include <chrono>
#include <thread>

namespace zu::test {

// Far more than anything here takes; a test that gets there has failed.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr std::chrono::seconds kDeadline{40};  // Everything is slower.
#else
inline constexpr std::chrono::seconds kDeadline{10};
#endif

// Asks until `condition` holds; false when the deadline passes first.
template <typename Condition>
[[nodiscard]] bool WaitUntil(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_WAIT_UNTIL_H_
