#include "support/child_reaper.h"

#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "support/signal_mask.h"

namespace zu {
namespace {

using std::chrono::milliseconds;

// The host's signal handling is left alone and systems differ in other ways to
// tell the end of a child, so the thread looks: soon at first, since most tools
// end when they close their output, then ever more seldom.
constexpr milliseconds kFirstPause{1};
constexpr milliseconds kLongestPause{1000};

struct State {
  std::mutex mutex;
  std::condition_variable wake;
  std::vector<pid_t> pending;
  std::thread thread;
  bool running = false;  // The thread will look at `pending` again.
  bool added = false;
  bool stopped = false;
};

// Neither constructed at load nor destroyed at exit, when other threads and
// exit handlers may still run tools.
alignas(State) unsigned char g_storage[sizeof(State)];
// The process whose state that is; its negative while it is being made.
std::atomic<pid_t> g_owner{0};

// A forked child of the host has neither the parent's thread nor its children,
// and finds the mutex as the fork caught it: it starts with a state of its own.
State& GetState() {
  const pid_t self = ::getpid();
  for (;;) {
    pid_t owner = g_owner.load(std::memory_order_acquire);
    if (owner == self) {
      return *std::launder(reinterpret_cast<State*>(g_storage));
    }
    if (owner == -self) {
      std::this_thread::yield();
    } else if (g_owner.compare_exchange_weak(owner, -self)) {
      new (g_storage) State;
      g_owner.store(self, std::memory_order_release);
    }
  }
}

// True when the child is reaped, or was by somebody else (ECHILD).
bool IsGone(pid_t child) { return ::waitpid(child, nullptr, WNOHANG) != 0; }

void Sweep(State& state) { std::erase_if(state.pending, IsGone); }

void ReapPending(State& state) {
  std::unique_lock lock(state.mutex);
  milliseconds pause = kFirstPause;
  while (!state.stopped && !state.pending.empty()) {
    state.wake.wait_for(lock, pause,
                        [&] { return state.added || state.stopped; });
    pause = state.added ? kFirstPause : std::min(pause * 2, kLongestPause);
    state.added = false;
    Sweep(state);
  }
  state.running = false;
}

// Signals are for the host's own threads. When no thread can be made, the next
// call sweeps.
void StartThread(State& state) {
  // One that has left its loop may still be on its way out.
  if (state.thread.joinable()) state.thread.join();
  const SignalMask mask = SignalMask::AllBlocked();
  try {
    state.thread = std::thread(ReapPending, std::ref(state));
    state.running = true;
  } catch (const std::exception&) {
  }
}

}  // namespace

void ReapWhenItEnds(pid_t child) {
  if (IsGone(child)) return;
  State& state = GetState();
  const std::lock_guard lock(state.mutex);
  try {
    state.pending.push_back(child);
  } catch (const std::exception&) {
    return;  // Without memory it stays a zombie until the host ends.
  }
  if (state.running) {
    state.added = true;
    state.wake.notify_one();
    return;
  }
  Sweep(state);
  if (!state.stopped && !state.pending.empty()) StartThread(state);
}

void StopChildReaper() {
  State& state = GetState();
  std::unique_lock lock(state.mutex);
  state.stopped = true;
  state.wake.notify_one();
  std::thread thread = std::move(state.thread);
  lock.unlock();
  if (thread.joinable()) thread.join();
  lock.lock();
  Sweep(state);
  std::vector<pid_t>().swap(state.pending);
}

}  // namespace zu
