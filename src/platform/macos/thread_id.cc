#include "platform/thread_id.h"

#include <pthread.h>

namespace zu::platform {

uint64_t CurrentThreadId() {
  uint64_t id = 0;
  ::pthread_threadid_np(nullptr, &id);
  return id;
}

}  // namespace zu::platform
