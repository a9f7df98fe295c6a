#include "platform/linux/thread.h"

#include <memory>

#include "support/guarded.h"
#include "support/signal_mask.h"

namespace zu::platform {
namespace {

void* Run(void* argument) {
  const std::unique_ptr<std::function<void()>> body(
      static_cast<std::function<void()>*>(argument));
  Guarded("Thread", [&body] { (*body)(); });
  return nullptr;
}

}  // namespace

std::optional<pthread_t> StartThread(const char* name,
                                     std::function<void()> body) {
  auto argument = std::make_unique<std::function<void()>>(std::move(body));
  pthread_t thread{};
  {
    const SignalMask mask = SignalMask::AllBlocked();
    if (::pthread_create(&thread, nullptr, &Run, argument.get()) != 0) {
      return std::nullopt;
    }
  }
  (void)argument.release();  // The thread's now.
  ::pthread_setname_np(thread, name);
  return thread;
}

}  // namespace zu::platform
