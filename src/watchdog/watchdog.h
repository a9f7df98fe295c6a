// The thread that watches over the host's liveness.
#ifndef ZU_WATCHDOG_WATCHDOG_H_
#define ZU_WATCHDOG_WATCHDOG_H_

namespace zu::watchdog {

// The library's first load hook: starts the thread. A failure is only logged;
// the library then works without it.
void Initialize();

// Its last unload hook: ends the thread and waits for it. Does not wait when it
// is called on that thread, by a host that leaves from its signal handler.
void Finalize();

}  // namespace zu::watchdog

#endif  // ZU_WATCHDOG_WATCHDOG_H_
