#include "platform/linux/ipc/event_loop.h"

#include <sys/epoll.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <vector>

#include "platform/linux/thread.h"
#include "support/guarded.h"
#include "support/never_destroyed.h"

namespace zu::platform {
namespace {

constexpr size_t kScratchSize = 65536;
constexpr int kEventsAtOnce = 64;
// How long the consumer may be away before the own thread takes over.
constexpr std::chrono::milliseconds kPatience{5};

epoll_event InputEvent(IpcConnection* connection) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = connection;
  return event;
}

}  // namespace

EventLoop::EventLoop()
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      scratch_(AllocateBody(kScratchSize)) {
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
  const std::lock_guard lock(mutex_);
  released_ = true;
  watch_.notify_all();
  wakeup_.Set();
}

void EventLoop::Stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  watch_.notify_all();
  wakeup_.Set();
}

bool EventLoop::IsOver() const {
  return stopped_ || (released_ && connections_.empty());
}

void EventLoop::Signal() {
  const std::lock_guard lock(mutex_);
  signalled_ = true;
  if (server_ == Server::kOwnThread) {
    turn_.notify_all();
  } else if (server_ == Server::kConsumer &&
             consumer_ != std::this_thread::get_id()) {
    wakeup_.Set();
  }
}

bool EventLoop::AwaitSignal(int timeout_ms) {
  std::unique_lock lock(mutex_);
  if (server_ == Server::kOwnThread && !signalled_) {
    asked_back_ = true;
    wakeup_.Set();
    turn_.wait(lock,
               [this] { return server_ != Server::kOwnThread || signalled_; });
    asked_back_ = false;
  }
  if (server_ == Server::kNobody) {
    server_ = Server::kConsumer;
    consumer_ = std::this_thread::get_id();
    bool in_time = true;
    while (!signalled_ && !stopped_ && in_time) {
      lock.unlock();
      // One event at a time, so that one client's requests are at work before
      // the next client's are read. The kernel keeps the rest, in turn.
      in_time = Poll(timeout_ms, 1);
      lock.lock();
    }
    server_ = Server::kNobody;
  }
  ++absences_;
  if (!std::exchange(watched_, true)) watch_.notify_all();
  return std::exchange(signalled_, false);
}

bool EventLoop::Poll(int timeout_ms, int most) {
  std::array<epoll_event, kEventsAtOnce> events;
  const int count = RetryOnInterrupt([&] {
    return ::epoll_wait(epoll_.get(), events.data(),
                        std::min(most, kEventsAtOnce), timeout_ms);
  });
  for (int i = 0; i < count; ++i) {
    if (events[i].data.ptr == nullptr) {
      wakeup_.Clear();
    } else {
      HandleEvents(*static_cast<IpcConnection*>(events[i].data.ptr),
                   events[i].events);
    }
  }
  return count > 0;
}

void EventLoop::HandleEvents(IpcConnection& connection, uint32_t events) {
  if ((events & EPOLLOUT) != 0) connection.Flush();
  if ((events & ~uint32_t{EPOLLOUT}) == 0) return;
  // Out of memory costs that client its connection and nobody else anything.
  if (Guarded("IpcReceive", false, [&] {
        return connection.Receive({scratch_.get(), kScratchSize});
      })) {
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
  std::unique_lock lock(mutex_);
  const auto is_over = [this] { return IsOver(); };
  while (!IsOver()) {
    watch_.wait(lock, [this] { return watched_ || IsOver(); });
    const uint64_t absences = absences_;
    watch_.wait_for(lock, kPatience, is_over);
    if (absences != absences_) continue;
    if (server_ == Server::kConsumer) {
      watched_ = false;  // It came back and nothing has happened since.
      continue;
    }
    server_ = Server::kOwnThread;
    while (!asked_back_ && !IsOver()) {
      lock.unlock();
      Poll(-1, kEventsAtOnce);
      lock.lock();
    }
    server_ = Server::kNobody;
    turn_.notify_all();
  }
  stopped_ = true;
  std::unordered_map<IpcConnection*, IpcConnectionRef> rest;
  rest.swap(connections_);
  lock.unlock();
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
NeverDestroyed<LoopThreads> g_threads_storage;
LoopThreads& g_threads = g_threads_storage.value;

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
