// What delivers the events of one serial queue's connections.
#ifndef ZU_PLATFORM_LINUX_IPC_EVENT_LOOP_H_
#define ZU_PLATFORM_LINUX_IPC_EVENT_LOOP_H_

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "platform/linux/event.h"
#include "platform/linux/ipc/connection.h"

namespace zu::platform {

// One epoll loop, run by one thread at a time: by the consumer of what it
// delivers, while that waits for work, since then nobody has to be woken to
// hand a request on; and by a thread of its own while the consumer is away for
// long, so that neither input nor queued output waits for a slow callback.
class EventLoop {
 public:
  EventLoop();
  bool valid() const { return epoll_.valid() && wakeup_.valid() && scratch_; }

  // The own thread's body. Returns once the loop is stopped, or released with
  // no connection left; the connections are closed then.
  void Run();
  // No more connections will be added.
  void Release();
  void Stop();

  // For the consumer: see platform::AwaitSignal and Signal.
  bool AwaitSignal(int timeout_ms);
  void Signal();

  // False when the system takes no more, or the loop was stopped.
  bool Add(const IpcConnectionRef& connection);
  // Whether the connection is also told when its peer takes more output.
  void WatchOutput(IpcConnection& connection, bool watch);

 private:
  enum class Server { kNobody, kConsumer, kOwnThread };

  bool IsOver() const;  // Under the mutex.
  // Waits for events and handles up to `most` of them. False: none came in
  // time.
  bool Poll(int timeout_ms, int most);
  void HandleEvents(IpcConnection& connection, uint32_t events);

  const FileDescriptor epoll_;
  const Event wakeup_;
  const Body scratch_;  // The serving thread's.

  std::mutex mutex_;  // Guards what follows.
  bool released_ = false;
  bool stopped_ = false;
  std::unordered_map<IpcConnection*, IpcConnectionRef> connections_;

  Server server_ = Server::kNobody;
  std::thread::id consumer_;  // While it serves.
  bool signalled_ = false;
  bool asked_back_ = false;  // The consumer waits for its turn.
  std::condition_variable turn_;
  // How often the consumer went away, and whether the own thread watches that.
  uint64_t absences_ = 0;
  bool watched_ = true;
  std::condition_variable watch_;
};

// A new loop with its thread; null when the system refuses either.
std::shared_ptr<EventLoop> StartEventLoop(const char* thread_name);

// Stops every loop and waits for their threads.
void StopEventLoops();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_IPC_EVENT_LOOP_H_
