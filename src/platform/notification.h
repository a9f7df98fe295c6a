// System-wide notifications: names that any process may post and observe.
//
// A notification carries nothing but its name. Posts that come close together
// may reach an observer as one; a post after a quiet time always does.
#ifndef ZU_PLATFORM_NOTIFICATION_H_
#define ZU_PLATFORM_NOTIFICATION_H_

#include <cstdint>
#include <functional>

namespace zu::platform {

// 0 on success, with observers or without; else the platform's status number.
uint32_t PostNotification(const char* name);

inline constexpr int32_t kNoNotificationToken = -1;

// Calls `handler` for each notification, on a thread of the system's (macOS:
// the high-priority global queue) or the library's (Linux: one for all). Also
// for the system's own names: power sources and network configuration. False,
// with `token` unchanged, when it cannot be registered.
[[nodiscard]] bool RegisterNotification(const char* name, int32_t& token,
                                        std::function<void()> handler);

// The handler may still be called once more when this returns, unless the
// caller is that handler.
void CancelNotification(int32_t token);

// Calls `handler` for each notification until the process ends or
// StopNotifications. macOS: through the notification center, so on the main
// thread's run loop. Once for each name: later calls change nothing.
void ObserveNotification(const char* name, void (*handler)());

// For the unload: when it returns, no handler runs or will be called, unless
// the caller is one. On macOS only observers are removed.
void StopNotifications();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_NOTIFICATION_H_
