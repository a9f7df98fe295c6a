// Locks that exported calls share; they live from load to unload.
#ifndef ZU_INTERFACE_LOCKS_H_
#define ZU_INTERFACE_LOCKS_H_

#include <pthread.h>

namespace zu {

// Held while a network-change callback is registered.
extern pthread_mutex_t g_IP_timer_mutex;
// Held by one certificate query at a time.
extern pthread_mutex_t g_cert_mutex;

}  // namespace zu

#endif  // ZU_INTERFACE_LOCKS_H_
