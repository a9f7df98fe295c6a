// What the watchdog's thread sleeps on: one sleeper in the process, and anybody
// to wake it.
#ifndef ZU_PLATFORM_WAKE_UP_H_
#define ZU_PLATFORM_WAKE_UP_H_

#include <cstdint>

namespace zu::platform {

// To be called before the others. False when the system refuses.
[[nodiscard]] bool CreateWakeUp();
// Nobody sleeps any more. A late WakeUp has no effect.
void DestroyWakeUp();

// Ends the sleep that is under way, or else the next one: calls are counted, so
// none is lost. Async-signal-safe. 0, or the platform's error number.
int32_t WakeUp();

// Sleeps until ReadMonotonicClock (task.h) stands at that many seconds,
// whatever happens to the wall clock. False when it does; true when the sleep
// ended before that, by WakeUp or for no reason at all.
[[nodiscard]] bool SleepUntil(uint64_t deadline_s);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_WAKE_UP_H_
