#include "platform/notification.h"

#include <utility>

#include "platform/linux/notification/dispatcher.h"
#include "platform/linux/notification/post_directory.h"
#include "support/never_destroyed.h"

namespace zu::platform {
namespace {

// The platform's numbers for these (NOTIFY_STATUS_...).
constexpr uint32_t kPosted = 0;
constexpr uint32_t kInvalidName = 1;
constexpr uint32_t kFailed = 1000000;

// Its thread outlasts a disorderly exit.
NeverDestroyed<Dispatcher> g_dispatcher_storage;
Dispatcher& g_dispatcher = g_dispatcher_storage.value;

}  // namespace

uint32_t PostNotification(const char* name) {
  if (name == nullptr) return kInvalidName;
  return PostFile(PostStem(name)) ? kPosted : kFailed;
}

bool RegisterNotification(const char* name, int32_t& token,
                          std::function<void()> handler) {
  const int32_t made = g_dispatcher.Register(name, std::move(handler));
  if (made == kNoNotificationToken) return false;
  token = made;
  return true;
}

void CancelNotification(int32_t token) { g_dispatcher.Cancel(token); }

void ObserveNotification(const char* name, void (*handler)()) {
  g_dispatcher.Observe(name, handler);
}

void StopNotifications() { g_dispatcher.Stop(); }

}  // namespace zu::platform
