// Entry points of notifications: forwarding, and the lock that puts network
// registrations in order.

#include <pthread.h>

#include "ZuHelper.h"
#include "interface/locks.h"

uint32_t ZuSignalUI(const char* name) { return SignalUI(name); }

uint8_t ZuRegisterPowerSource(ZuPowerSourceCallback callback,
                              uint8_t* unlimited) {
  return RegisterPowerSource(callback, unlimited);
}

void ZuUnRegisterPowerSource(void) { UnRegisterPowerSource(); }

uint32_t ZuRegisterAddressChange(ZuAddressChangeCallback callback) {
  ::pthread_mutex_lock(&zu::g_IP_timer_mutex);
  const uint32_t registered = RegisterAddressChangeFunc(callback);
  ::pthread_mutex_unlock(&zu::g_IP_timer_mutex);
  return registered;
}

void ZuUnRegisterAddressChange(void) { UnRegisterAddressChange(); }
