// Entry points of the watchdog and the semaphore: forwarding only.

#include "ZuHelper.h"

uint8_t ZuDeadLockWatch(void) { return watchdog_keepalive(); }

uint32_t ZuDeadLockStop(void) { return watchdog_stop(); }

uint32_t ZuDeadLockDisable(void) { return watchdog_disable(); }

uint32_t ZuOpenSemaphore(void) { return OpenSemaphore(); }

int32_t ZuUnlinkSemaphore(void) { return UnlinkSemaphore(); }
