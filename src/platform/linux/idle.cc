#include "platform/idle.h"

#include <sys/stat.h>
#include <algorithm>
#include <ctime>
#include <string>
#include <vector>

#include "platform/linux/login_file.h"
#include "platform/linux/login_manager.h"

namespace zu::platform {
namespace {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;

// A terminal's user can give it any time.
int64_t ToNanoseconds(const timespec& time) {
  constexpr int64_t kMost_s = INT64_MAX / kNanosecondsPerSecond - 1;
  return std::clamp<int64_t>(time.tv_sec, 0, kMost_s) * kNanosecondsPerSecond +
         time.tv_nsec;
}

// Clocks that were set, and those of containers, make negative differences.
int64_t TimeSince_ns(clockid_t clock, int64_t time_ns) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return std::max<int64_t>(ToNanoseconds(now) - time_ns, 0);
}

// Below /dev. Of those logged in from elsewhere, too: on such a machine there
// is nothing nearer to a user's hands.
std::vector<std::string> UsedTerminals() {
  std::vector<std::string> terminals = SessionTerminals();
  for (const utmpx& record : ReadLoginFile().value_or(std::vector<utmpx>())) {
    if (record.ut_type == USER_PROCESS) {
      terminals.emplace_back(FieldText(record.ut_line));
    }
  }
  return terminals;
}

// Reading from a terminal is an access. Absent without terminals.
std::optional<int64_t> TimeSinceLastAccess_ns() {
  std::optional<int64_t> last_ns;
  for (const std::string& terminal : UsedTerminals()) {
    struct stat status;
    // Not every line is a terminal: displays have names there as well.
    if (::stat(("/dev/" + terminal).c_str(), &status) != 0 ||
        !S_ISCHR(status.st_mode)) {
      continue;
    }
    const int64_t access_ns = ToNanoseconds(status.st_atim);
    last_ns = std::max(last_ns.value_or(access_ns), access_ns);
  }
  if (!last_ns) return std::nullopt;
  return TimeSince_ns(CLOCK_REALTIME, *last_ns);
}

}  // namespace

// A hint that is false says too little, for minutes after the last key. The
// terminals tell more, but nothing of a graphical session, whose keys they do
// not see.
std::optional<int64_t> ReadIdleTime_ns() {
  const std::optional<IdleHint> hint = ReadIdleHint();
  if (!hint) return TimeSinceLastAccess_ns();
  const int64_t changed_ns =
      TimeSince_ns(CLOCK_MONOTONIC, hint->since_us * 1000);
  if (hint->idle) return changed_ns;
  if (HasGraphicalSession()) return 0;
  return std::min(TimeSinceLastAccess_ns().value_or(0), changed_ns);
}

}  // namespace zu::platform
