// The deadline of one call.
#ifndef ZU_CLIENT_LINUX_DEADLINE_H_
#define ZU_CLIENT_LINUX_DEADLINE_H_

#include <poll.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace zu::client {

// As socket options take it, where 0 stands for no limit.
inline timeval SocketTimeout(int32_t timeout_ms) {
  const long left_ms = std::max(timeout_ms, 0);
  return {left_ms / 1000, left_ms % 1000 * 1000};
}

class Deadline {
 public:
  explicit Deadline(int32_t timeout_ms)
      : timeout_ms_(timeout_ms),
        at_(std::chrono::steady_clock::now() +
            std::chrono::milliseconds(std::max(timeout_ms, 0))) {}

  [[nodiscard]] bool infinite() const { return timeout_ms_ < 0; }
  [[nodiscard]] int32_t timeout_ms() const { return timeout_ms_; }
  // Nothing has waited on it yet: all of the time is left.
  [[nodiscard]] bool whole() const { return whole_; }
  void Touch() { whole_ = false; }

  // Waits until `descriptor` is ready for `events` or has failed, or a signal
  // came. False: the deadline has passed. A deadline of 0 looks once.
  [[nodiscard]] bool Poll(int descriptor, short events) {
    int left = -1;
    if (!infinite()) {
      const auto span = std::chrono::ceil<std::chrono::milliseconds>(
          at_ - std::chrono::steady_clock::now());
      if (!whole_ && span.count() <= 0) return false;
      left = static_cast<int>(std::max<int64_t>(span.count(), 0));
    }
    whole_ = false;
    pollfd entry = {descriptor, events, 0};
    const int ready = ::poll(&entry, 1, left);
    return ready != 0;
  }

  // Waits for a notification. False: the deadline has passed, which does not
  // mean that what the caller waits for has not come.
  [[nodiscard]] bool Wait(std::condition_variable& condition,
                          std::unique_lock<std::mutex>& lock) {
    whole_ = false;
    if (infinite()) {
      condition.wait(lock);
      return true;
    }
    return condition.wait_until(lock, at_) == std::cv_status::no_timeout;
  }

 private:
  int32_t timeout_ms_;
  std::chrono::steady_clock::time_point at_;
  bool whole_ = true;
};

}  // namespace zu::client

#endif  // ZU_CLIENT_LINUX_DEADLINE_H_
