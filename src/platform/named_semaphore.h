// What signal handlers may do with a named semaphore.
#ifndef ZU_PLATFORM_NAMED_SEMAPHORE_H_
#define ZU_PLATFORM_NAMED_SEMAPHORE_H_

namespace zu::platform {

// Removes the name of the agent's semaphore (ZU_SEMAPHORE_NAME), as sem_unlink
// does, which is not promised to be async-signal-safe everywhere; this is.
// 0, or -1 with errno set.
int UnlinkSemaphoreInHandler();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_NAMED_SEMAPHORE_H_
