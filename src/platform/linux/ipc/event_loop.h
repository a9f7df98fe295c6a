// The thread on which the connections of one serial queue deliver.
#ifndef ZU_PLATFORM_LINUX_IPC_EVENT_LOOP_H_
#define ZU_PLATFORM_LINUX_IPC_EVENT_LOOP_H_

#include <memory>
#include <mutex>
#include <unordered_map>

#include "platform/linux/ipc/connection.h"
#include "platform/linux/ipc/event.h"

namespace zu::platform {

// One epoll loop. Runs until it is stopped, or released with no connection
// left.
class EventLoop {
 public:
  EventLoop();
  bool valid() const { return epoll_.valid() && wakeup_.valid(); }

  void Run();
  // No more connections will be added.
  void Release();
  // Ends Run after the event that it is at; the connections are closed.
  void Stop();

  // False when the system takes no more, or the loop was stopped.
  bool Add(const IpcConnectionRef& connection);
  // Whether the connection is also told when its peer takes more output.
  void WatchOutput(IpcConnection& connection, bool watch);

 private:
  bool IsOver();
  void HandleEvents(IpcConnection& connection, uint32_t events,
                    std::span<char> scratch);

  const FileDescriptor epoll_;
  const Event wakeup_;
  std::mutex mutex_;  // Guards what follows.
  bool released_ = false;
  bool stopped_ = false;
  std::unordered_map<IpcConnection*, IpcConnectionRef> connections_;
};

// A new loop with its thread; null when the system refuses either.
std::shared_ptr<EventLoop> StartEventLoop(const char* thread_name);

// Stops every loop and waits for their threads.
void StopEventLoops();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_IPC_EVENT_LOOP_H_
