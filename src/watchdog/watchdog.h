// The thread that watches over the host's liveness.
#ifndef ZU_WATCHDOG_WATCHDOG_H_
#define ZU_WATCHDOG_WATCHDOG_H_

namespace zu::watchdog {

// The library's first load hook and last unload hook.
void Initialize();
void Finalize();

}  // namespace zu::watchdog

#endif  // ZU_WATCHDOG_WATCHDOG_H_
