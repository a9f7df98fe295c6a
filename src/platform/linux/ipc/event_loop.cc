#include "platform/linux/ipc/event_loop.h"

#include <sys/epoll.h>
#include <array>
#include <atomic>
#include <cstdlib>
#include <vector>

#include "platform/linux/ipc/thread.h"
#include "support/guarded.h"

namespace zu::platform {
namespace {

constexpr size_t kScratchSize = 65536;
constexpr int kEventsAtOnce = 64;

epoll_event InputEvent(IpcConnection* connection) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = connection;
  return event;
}

}  // namespace

EventLoop::EventLoop() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
  epoll_event event = InputEvent(nullptr);
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wakeup_.get(), &event);
}

bool EventLoop::Add(const IpcConnectionRef& connection) {
  const std::lock_guard lock(mutex_);
  if (stopped_) return false;
  epoll_event event = InputEvent(connection.get());
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, connection->socket(), &event) !=
      0) {
    return false;
  }
  connections_.emplace(connection.get(), connection);
  return true;
}

void EventLoop::WatchOutput(IpcConnection& connection, bool watch) {
  epoll_event event = InputEvent(&connection);
  if (watch) event.events |= EPOLLOUT;
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, connection.socket(), &event);
}

void EventLoop::Release() {
  {
    const std::lock_guard lock(mutex_);
    released_ = true;
  }
  wakeup_.Set();
}

void EventLoop::Stop() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  wakeup_.Set();
}

bool EventLoop::IsOver() {
  const std::lock_guard lock(mutex_);
  return stopped_ || (released_ && connections_.empty());
}

void EventLoop::HandleEvents(IpcConnection& connection, uint32_t events,
                             std::span<char> scratch) {
  if ((events & EPOLLOUT) != 0) connection.Flush();
  if ((events & ~uint32_t{EPOLLOUT}) == 0) return;
  // Out of memory costs that client its connection and nobody else anything.
  if (Guarded("IpcReceive", false,
              [&] { return connection.Receive(scratch); })) {
    return;
  }
  connection.End();
  IpcConnectionRef last;  // Let go of without the lock.
  const std::lock_guard lock(mutex_);
  const auto found = connections_.find(&connection);
  last = std::move(found->second);
  connections_.erase(found);
  // Its socket is closed with the last reference, which may be another's.
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, connection.socket(), nullptr);
}

void EventLoop::Run() {
  const Body memory = AllocateBody(kScratchSize);
  if (!memory) return;
  const std::span<char> scratch(memory.get(), kScratchSize);
  std::array<epoll_event, kEventsAtOnce> events;
  while (!IsOver()) {
    const int count = RetryOnInterrupt([&] {
      return ::epoll_wait(epoll_.get(), events.data(), kEventsAtOnce, -1);
    });
    for (int i = 0; i < count; ++i) {
      if (events[i].data.ptr == nullptr) {
        wakeup_.Clear();
        continue;
      }
      HandleEvents(*static_cast<IpcConnection*>(events[i].data.ptr),
                   events[i].events, scratch);
    }
  }
  std::unordered_map<IpcConnection*, IpcConnectionRef> rest;
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    rest.swap(connections_);
  }
  for (const auto& [pointer, connection] : rest) connection->End();
}

namespace {

// The threads of all loops, each joined once it ended: at the next start or
// when all are stopped. Never destroyed, because loops outlast a disorderly
// exit.
struct LoopThreads {
  struct Entry {
    std::shared_ptr<EventLoop> loop;
    pthread_t thread;
    std::shared_ptr<std::atomic<bool>> ended;
  };
  std::mutex mutex;
  std::vector<Entry> entries;
};
LoopThreads& g_threads = *new LoopThreads;

}  // namespace

std::shared_ptr<EventLoop> StartEventLoop(const char* thread_name) {
  auto loop = std::make_shared<EventLoop>();
  if (!loop->valid()) return nullptr;
  auto ended = std::make_shared<std::atomic<bool>>(false);
  const std::lock_guard lock(g_threads.mutex);
  std::erase_if(g_threads.entries, [](const LoopThreads::Entry& entry) {
    if (!entry.ended->load()) return false;
    ::pthread_join(entry.thread, nullptr);
    return true;
  });
  g_threads.entries.reserve(g_threads.entries.size() + 1);
  const auto thread = StartThread(thread_name, [loop, ended] {
    loop->Run();
    ended->store(true);
  });
  if (!thread) return nullptr;
  g_threads.entries.push_back({loop, *thread, std::move(ended)});
  return loop;
}

void StopEventLoops() {
  std::vector<LoopThreads::Entry> entries;
  {
    const std::lock_guard lock(g_threads.mutex);
    entries.swap(g_threads.entries);
  }
  for (const auto& entry : entries) {
    entry.loop->Stop();
    ::pthread_join(entry.thread, nullptr);
  }
}

}  // namespace zu::platform
