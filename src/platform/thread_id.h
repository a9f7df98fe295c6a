// The calling thread's identifier.
#ifndef ZU_PLATFORM_THREAD_ID_H_
#define ZU_PLATFORM_THREAD_ID_H_

#include <cstdint>

namespace zu::platform {

// As the whole system knows the calling thread.
uint64_t CurrentThreadId();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_THREAD_ID_H_
