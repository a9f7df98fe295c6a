#include "platform/thread_id.h"

#include <unistd.h>

namespace zu::platform {

uint64_t CurrentThreadId() { return static_cast<uint64_t>(::gettid()); }

}  // namespace zu::platform
