#include "platform/linux/ipc/thread.h"

#include <csignal>
#include <memory>

#include "support/guarded.h"

namespace zu::platform {
namespace {

void* Run(void* argument) {
  const std::unique_ptr<std::function<void()>> body(
      static_cast<std::function<void()>*>(argument));
  Guarded("IpcThread", [&body] { (*body)(); });
  return nullptr;
}

}  // namespace

std::optional<pthread_t> StartThread(const char* name,
                                     std::function<void()> body) {
  auto argument = std::make_unique<std::function<void()>>(std::move(body));
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread{};
  const int error = ::pthread_create(&thread, nullptr, &Run, argument.get());
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (error != 0) return std::nullopt;
  (void)argument.release();  // The thread's now.
  ::pthread_setname_np(thread, name);
  return thread;
}

}  // namespace zu::platform
