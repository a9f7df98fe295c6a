#include "platform/notification.h"

#include <CoreFoundation/CoreFoundation.h>
#include <dispatch/dispatch.h>
#include <notify.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "platform/macos/scoped_refs.h"
#include "platform/macos/stay_loaded.h"
#include "support/guarded.h"
#include "support/never_destroyed.h"

namespace zu::platform {
namespace {

// By name. An entry's address is what the notification center knows an observer
// by. Never destroyed, because the center calls as long as the run loop turns.
struct Observers {
  using Handler = void (*)();
  std::mutex mutex;
  std::map<std::string, Handler> handlers;
};
NeverDestroyed<Observers> g_observers_storage;
Observers& g_observers = g_observers_storage.value;

void Observed(CFNotificationCenterRef /*center*/, void* observer,
              CFNotificationName /*name*/, const void* /*object*/,
              CFDictionaryRef /*information*/) {
  const auto handler = *static_cast<Observers::Handler*>(observer);
  Guarded("Notification", [handler] { handler(); });
}

}  // namespace

uint32_t PostNotification(const char* name) { return ::notify_post(name); }

bool RegisterNotification(const char* name, int32_t& token,
                          std::function<void()> handler) {
  StayLoaded();
  const auto shared =
      std::make_shared<const std::function<void()>>(std::move(handler));
  int made = NOTIFY_TOKEN_INVALID;
  const uint32_t status = ::notify_register_dispatch(
      name, &made, ::dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_HIGH, 0),
      ^(int /*token*/) {
        Guarded("Notification", [&] { (*shared)(); });
      });
  if (status != NOTIFY_STATUS_OK) return false;
  token = made;
  return true;
}

void CancelNotification(int32_t token) { ::notify_cancel(token); }

void ObserveNotification(const char* name, void (*handler)()) {
  const ScopedCf<CFStringRef> text(::CFStringCreateWithCString(
      kCFAllocatorDefault, name, kCFStringEncodingUTF8));
  if (!text.valid()) return;
  const std::lock_guard lock(g_observers.mutex);
  const auto [entry, added] = g_observers.handlers.try_emplace(name, handler);
  if (!added) return;
  ::CFNotificationCenterAddObserver(
      ::CFNotificationCenterGetDarwinNotifyCenter(), &entry->second, &Observed,
      text.get(), nullptr, CFNotificationSuspensionBehaviorDeliverImmediately);
}

// The entries stay: the center may be about to call one.
void StopNotifications() {
  const std::lock_guard lock(g_observers.mutex);
  for (const auto& [name, handler] : g_observers.handlers) {
    ::CFNotificationCenterRemoveEveryObserver(
        ::CFNotificationCenterGetDarwinNotifyCenter(), &handler);
  }
}

}  // namespace zu::platform
