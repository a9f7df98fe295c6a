// Threads of our own inside the host.
#ifndef ZU_PLATFORM_LINUX_THREAD_H_
#define ZU_PLATFORM_LINUX_THREAD_H_

#include <pthread.h>
#include <functional>
#include <optional>

namespace zu::platform {

// Starts a named thread with every signal blocked, so that the host's handlers
// run on the host's threads. Absent when the system refuses one. The caller
// joins it.
std::optional<pthread_t> StartThread(const char* name,
                                     std::function<void()> body);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_THREAD_H_
