// The signal to the agent's UI that something has changed.

#include "ZuHelper.h"
#include "platform/notification.h"
#include "support/guarded.h"

// The platform's NOTIFY_STATUS_FAILED.
constexpr uint32_t kFailed = 1000000;

uint32_t SignalUI(const char* name) {
  return zu::Guarded(__func__, kFailed,
                     [name] { return zu::platform::PostNotification(name); });
}
