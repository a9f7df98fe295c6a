#include "server/dispatch.h"

#include <pthread.h>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

#include "ZuHelper.h"
#include "server/request.h"
#include "server/server_state.h"
#include "server/zu_queue.h"
#include "support/guarded.h"
#include "support/log.h"
#include "support/never_destroyed.h"

ZuQueue* gXpcRequestQueue = nullptr;

namespace zu::server {
namespace {

// How long an idle worker keeps the memory of a large request.
constexpr std::chrono::milliseconds kKeepMemory{5000};

// What may wait in the queue before the clients' queue has to. One alone would
// cost a change of threads for each request; the bytes are a bound for large
// ones.
constexpr size_t kMaxQueuedRequests = 64;
constexpr size_t kMaxQueuedBytes = 8u << 20;

// One request on its way. The reply is null when the client wants none.
struct RequestRecord {
  platform::IpcConnectionRef client;
  platform::IpcMessageRef message;
  platform::IpcMessageRef reply;
};

// The mutex guards all of this and gXpcRequestQueue. Nothing here is ever
// destroyed: threads of a host that exits in disorder may still wait on it.
struct Worker {
  std::mutex gXpcRequestQueueMutex;
  platform::IpcQueueRef clients;  // Signalled for gWorkerThreadWakeup.
  std::condition_variable room;   // The queue became shorter, or went.
  size_t queued_bytes = 0;
  std::condition_variable ended;
  // The thread, while there is one to join.
  pthread_t gWorkerThread_id{};
  bool has_thread = false;
  // The thread has not yet left its loop.
  bool running = false;
  bool in_request = false;  // And so perhaps inside a callback of the host.
  bool g_serverImpl_enable = false;
};
NeverDestroyed<Worker> g_worker_storage;
Worker& g_worker = g_worker_storage.value;

bool OnWorkerThread() {
  return g_worker.has_thread &&
         ::pthread_equal(g_worker.gWorkerThread_id, ::pthread_self()) != 0;
}

// Lengths that no request may have carry no bytes either.
size_t CountedSize(const RequestRecord& record) {
  const size_t size = platform::BodySize(*record.message);
  return size <= platform::kMaxBodySize ? size : 0;
}

bool HasRoom() {
  return gXpcRequestQueue == nullptr ||
         (gXpcRequestQueue->size() < kMaxQueuedRequests &&
          g_worker.queued_bytes < kMaxQueuedBytes);
}

// Waits until there is a request or nothing more to wait for. Memory that large
// requests left goes after a while without work.
void WaitForWork(std::unique_lock<std::mutex>& lock,
                 RequestProcessor& processor) {
  while (g_worker.g_serverImpl_enable && gXpcRequestQueue->isEmpty()) {
    const platform::IpcQueueRef clients = g_worker.clients;
    lock.unlock();
    const bool holds = processor.HoldsMemory();
    const bool signalled = platform::AwaitSignal(
        *clients, holds ? kKeepMemory : platform::kForever);
    if (holds && !signalled) processor.Trim();
    lock.lock();
  }
}

void RunWorker() {
  RequestProcessor processor;
  std::unique_lock lock(g_worker.gXpcRequestQueueMutex);
  for (;;) {
    WaitForWork(lock, processor);
    // A callback that stops the server releases the queue as well.
    if (gXpcRequestQueue == nullptr || gXpcRequestQueue->isEmpty()) break;
    auto record =
        std::static_pointer_cast<RequestRecord>(gXpcRequestQueue->dequeue());
    g_worker.queued_bytes -= CountedSize(*record);
    g_worker.in_request = true;
    lock.unlock();
    g_worker.room.notify_one();
    Guarded("ProcessXpcRequest", [&record, &processor] {
      processor.ProcessXpcRequest(*record->message, record->reply.get());
    });
    lock.lock();
    g_worker.in_request = false;
    lock.unlock();
    // After that, so that nobody who has the answer finds the worker busy.
    if (record->reply && !gShuttingDown) {
      platform::SendMessage(*record->client, record->reply);
    }
    record.reset();
    lock.lock();
  }
  g_worker.running = false;
  g_worker.clients.reset();
  g_worker.ended.notify_all();
}

void DropRequests() {
  gXpcRequestQueue->clear();
  g_worker.queued_bytes = 0;
}

// Gives back a thread that has left its loop. Takes `lock` with it.
void JoinEndedThread(std::unique_lock<std::mutex> lock) {
  if (!std::exchange(g_worker.has_thread, false)) return;
  const pthread_t thread = g_worker.gWorkerThread_id;
  lock.unlock();
  ::pthread_join(thread, nullptr);
}

}  // namespace

void HandleRequest(const platform::IpcConnectionRef& client,
                   const platform::IpcMessageRef& message) {
  const auto record = std::make_shared<RequestRecord>(
      RequestRecord{client, message, platform::CreateReply(message)});
  platform::IpcQueueRef clients;
  {
    std::unique_lock lock(g_worker.gXpcRequestQueueMutex);
    if (!OnWorkerThread()) g_worker.room.wait(lock, HasRoom);
    // Tested under the lock: past it, the worker or the stop finds the record.
    if (gShuttingDown || gXpcRequestQueue == nullptr) return;
    gXpcRequestQueue->enqueue(record);
    g_worker.queued_bytes += CountedSize(*record);
    clients = g_worker.clients;
  }
  // Signalled without the lock, on which the worker would only wait again.
  if (clients) platform::Signal(*clients);
}

bool StartWorker(const platform::IpcQueueRef& clients) {
  std::unique_lock lock(g_worker.gXpcRequestQueueMutex);
  delete std::exchange(gXpcRequestQueue, new ZuQueue);
  g_worker.queued_bytes = 0;
  if (!clients) return false;
  g_worker.clients = clients;
  g_worker.g_serverImpl_enable = true;
  // A callback that stopped the server and starts one again is still on the
  // old thread, which then simply goes on.
  if (g_worker.running) return true;
  if (g_worker.has_thread) {
    JoinEndedThread(std::move(lock));
    lock = std::unique_lock(g_worker.gXpcRequestQueueMutex);
  }
  g_worker.running = true;
  g_worker.has_thread =
      ::pthread_create(&g_worker.gWorkerThread_id, nullptr,
                       &WorkerThread_ProcessXpcRequest, &g_worker) == 0;
  if (!g_worker.has_thread) {
    g_worker.running = false;
    g_worker.g_serverImpl_enable = false;
    g_worker.clients.reset();
  }
  return g_worker.has_thread;
}

void StopWorker() {
  std::unique_lock lock(g_worker.gXpcRequestQueueMutex);
  g_worker.g_serverImpl_enable = false;
  if (OnWorkerThread()) return;
  if (g_worker.clients) platform::Signal(*g_worker.clients);
  g_worker.ended.wait(lock, [] { return !g_worker.running; });
  JoinEndedThread(std::move(lock));
}

void ReleaseRequestQueue(void (*released)()) {
  const std::lock_guard lock(g_worker.gXpcRequestQueueMutex);
  if (gXpcRequestQueue == nullptr) return;
  released();
  DropRequests();
  delete std::exchange(gXpcRequestQueue, nullptr);
  g_worker.room.notify_all();
}

bool AbandonRequests() {
  const std::lock_guard lock(g_worker.gXpcRequestQueueMutex);
  if (g_worker.in_request) return false;
  if (gXpcRequestQueue != nullptr) DropRequests();
  return true;
}

}  // namespace zu::server

void* WorkerThread_ProcessXpcRequest(void* worker) {
  if (worker == &zu::server::g_worker) zu::server::RunWorker();
  return nullptr;
}
