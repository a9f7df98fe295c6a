#include "platform/linux/notification/dispatcher.h"

#include <poll.h>
#include <unistd.h>
#include <algorithm>
#include <utility>

#include "platform/linux/thread.h"
#include "platform/notification.h"
#include "support/guarded.h"

namespace zu::platform {
namespace {

// The names that the system posts itself.
constexpr char kNetworkStem[] = "com.apple.system.config.network_change";
constexpr char kPowerStem[] = "com.apple.system.powersources.timeremaining";

}  // namespace

bool Dispatcher::Claim() {
  const pid_t self = ::getpid();
  pid_t owner = 0;
  return process_.compare_exchange_strong(owner, self) || owner == self;
}

int32_t Dispatcher::Register(const char* name, std::function<void()> handler) {
  if (!Claim()) return kNoNotificationToken;
  const std::lock_guard lock(mutex_);
  return Add(name, std::move(handler));
}

void Dispatcher::Observe(const char* name, void (*handler)()) {
  if (!Claim()) return;
  const std::lock_guard lock(mutex_);
  const auto [observer, added] = observers_.try_emplace(name);
  if (!added) return;
  observer->second = Add(name, handler);
  if (observer->second == kNoNotificationToken) observers_.erase(observer);
}

int32_t Dispatcher::Add(const char* name, std::function<void()> handler) {
  if (stopped_) return kNoNotificationToken;
  Registration registration{
      PostStem(name),
      std::make_shared<const std::function<void()>>(std::move(handler))};
  if (!OpenFor(registration.stem)) {
    CloseUnused();
    return kNoNotificationToken;
  }
  registrations_.emplace(++last_token_, std::move(registration));
  wakeup_->Set();  // There may be more to wait for.
  return last_token_;
}

bool Dispatcher::OpenFor(const std::string& stem) {
  return StartThread() && posts_.Open() &&
         (stem != kNetworkStem || network_.Open()) &&
         (stem != kPowerStem || power_.Open());
}

void Dispatcher::CloseUnused() {
  const auto unused = [this](const char* stem) {
    return std::none_of(
        registrations_.begin(), registrations_.end(),
        [stem](const auto& entry) { return entry.second.stem == stem; });
  };
  if (unused(kNetworkStem)) network_.Close();
  if (unused(kPowerStem)) power_.Close();
  if (registrations_.empty()) posts_.Close();
}

bool Dispatcher::StartThread() {
  if (thread_) return true;
  if (!wakeup_ || !wakeup_->valid()) wakeup_.emplace();
  if (wakeup_->valid()) {
    thread_ = platform::StartThread("zu-notify", [this] { Run(); });
  }
  return thread_.has_value();
}

void Dispatcher::Cancel(int32_t token) {
  if (!Claim()) return;
  Registration last;  // Destroyed without the lock: the handler is a stranger.
  const std::lock_guard lock(mutex_);
  const auto found = registrations_.find(token);
  if (found == registrations_.end()) return;
  last = std::move(found->second);
  registrations_.erase(found);
  CloseUnused();
  wakeup_->Set();
}

void Dispatcher::Stop() {
  if (!Claim()) return;
  std::map<int32_t, Registration> rest;  // As above.
  std::unique_lock lock(mutex_);
  stopped_ = true;
  rest.swap(registrations_);
  observers_.clear();
  CloseUnused();
  if (!thread_) return;
  wakeup_->Set();
  // A handler that ends the process cannot wait for itself.
  if (::pthread_equal(*thread_, ::pthread_self()) != 0) return;
  const pthread_t thread = *std::exchange(thread_, std::nullopt);
  lock.unlock();
  ::pthread_join(thread, nullptr);
}

void Dispatcher::Run() {
  for (;;) {
    for (const int32_t token : Wait()) Call(token);
    const std::lock_guard lock(mutex_);
    if (stopped_) return;
  }
}

// The registrations whose notifications have come; none when it was woken for
// something else.
std::vector<int32_t> Dispatcher::Wait() {
  enum { kWakeup, kPosts, kNetwork, kPowerEvents, kPowerTimer, kSources };
  pollfd sources[kSources] = {};
  std::unique_lock lock(mutex_);
  // What is closed is -1, which poll passes over.
  const int descriptors[kSources] = {wakeup_->get(), posts_.descriptor(),
                                     network_.descriptor(), power_.events(),
                                     power_.timer()};
  for (int i = 0; i < kSources; ++i) {
    sources[i] = {.fd = descriptors[i], .events = POLLIN, .revents = 0};
  }
  lock.unlock();
  ::poll(sources, kSources, -1);
  lock.lock();

  // Each may have been closed meanwhile, or opened anew: no read waits.
  const auto ready = [&sources](int source) {
    return sources[source].revents != 0;
  };
  if (ready(kWakeup)) wakeup_->Clear();
  Posts posts;
  if (ready(kPosts)) posts = posts_.Read();
  if (ready(kNetwork) && network_.Read()) posts.stems.emplace(kNetworkStem);
  if ((ready(kPowerEvents) || ready(kPowerTimer)) && power_.Read()) {
    posts.stems.emplace(kPowerStem);
  }
  std::vector<int32_t> due;
  for (const auto& [token, registration] : registrations_) {
    if (posts.any || posts.stems.contains(registration.stem)) {
      due.push_back(token);
    }
  }
  return due;
}

// Unless it was cancelled meanwhile.
void Dispatcher::Call(int32_t token) {
  std::shared_ptr<const std::function<void()>> handler;
  {
    const std::lock_guard lock(mutex_);
    const auto found = registrations_.find(token);
    if (found == registrations_.end()) return;
    handler = found->second.handler;
  }
  Guarded("Notification", [&handler] { (*handler)(); });
}

}  // namespace zu::platform
