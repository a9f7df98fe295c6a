// The thread that calls the handlers of notifications.
#ifndef ZU_PLATFORM_LINUX_NOTIFICATION_DISPATCHER_H_
#define ZU_PLATFORM_LINUX_NOTIFICATION_DISPATCHER_H_

#include <pthread.h>
#include <sys/types.h>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/event.h"
#include "platform/linux/notification/post_directory.h"
#include "platform/linux/notification/system_watch.h"

namespace zu::platform {

// Watches only what somebody is registered for, on one thread, which runs from
// the first registration to Stop. Handlers are called one at a time, with no
// lock held; while one runs, posts wait in the kernel. Handlers may call
// everything here.
//
// A forked child of the process has no such thread, and locks as the fork
// caught them: there registrations fail and the rest does nothing.
class Dispatcher {
 public:
  // kNoNotificationToken when the system refuses something, or after Stop.
  int32_t Register(const char* name, std::function<void()> handler);
  // Only the first for each name counts.
  void Observe(const char* name, void (*handler)());
  void Cancel(int32_t token);
  // Waits for the handler that is running, unless it is the caller.
  void Stop();

 private:
  struct Registration {
    std::string stem;
    std::shared_ptr<const std::function<void()>> handler;
  };

  // Whether this process is the one that registered first; becomes it.
  bool Claim();
  // Under the mutex, down to StartThread.
  int32_t Add(const char* name, std::function<void()> handler);
  bool OpenFor(const std::string& stem);
  void CloseUnused();
  bool StartThread();

  void Run();
  std::vector<int32_t> Wait();
  void Call(int32_t token);

  std::mutex mutex_;
  std::atomic<pid_t> process_{0};  // Of the first registration.
  bool stopped_ = false;
  std::optional<pthread_t> thread_;
  std::optional<Event> wakeup_;
  PostWatch posts_;
  NetworkWatch network_;
  PowerWatch power_;
  int32_t last_token_ = 0;
  std::map<int32_t, Registration> registrations_;
  std::map<std::string, int32_t> observers_;  // Their tokens, by name.
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_NOTIFICATION_DISPATCHER_H_
