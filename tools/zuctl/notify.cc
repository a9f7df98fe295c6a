// zuctl notify and zuctl wait: notifications, which need no server.
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "platform/notification.h"
#include "zuctl.h"

namespace zu::ctl {

Exit RunNotify(const Options& options) {
  const std::string name(options.arguments[0]);
  const uint32_t status = platform::PostNotification(name.c_str());
  if (status == 0) return Exit::kDone;
  return Fail(Exit::kFailed, name,
              "cannot be posted (" + std::to_string(status) + ")");
}

Exit RunWait(const Options& options) {
  // The handler's, too, which may be called once more after the end.
  struct Seen {
    std::mutex mutex;
    std::condition_variable changed;
    uint64_t count = 0;
  };
  const auto seen = std::make_shared<Seen>();
  const std::string name(options.arguments[0]);
  int32_t token = platform::kNoNotificationToken;
  if (!platform::RegisterNotification(name.c_str(), token, [seen] {
        const std::lock_guard lock(seen->mutex);
        ++seen->count;
        seen->changed.notify_one();
      })) {
    return Fail(Exit::kFailed, name, "cannot be waited for");
  }
  const uint64_t wanted = options.count == 0 ? 1 : options.count;
  const auto enough = [&] { return seen->count >= wanted; };
  std::unique_lock lock(seen->mutex);
  if (!options.has_timeout) {
    seen->changed.wait(lock, enough);
  } else if (!seen->changed.wait_for(
                 lock, std::chrono::milliseconds(options.timeout_ms), enough)) {
    return Fail(Exit::kTimedOut, name, "was not posted in time");
  }
  return Exit::kDone;
}

}  // namespace zu::ctl
