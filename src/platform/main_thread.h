// The main thread of a host that has no run loop.
#ifndef ZU_PLATFORM_MAIN_THREAD_H_
#define ZU_PLATFORM_MAIN_THREAD_H_

namespace zu::platform {

// Gives the calling thread to the system's dispatcher for good.
[[noreturn]] void ParkMainThread();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_MAIN_THREAD_H_
