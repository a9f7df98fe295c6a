// What runs when the library is loaded and unloaded.

#include <pthread.h>
#include <unistd.h>

#include "ZuHelper.h"
#include "interface/locks.h"
#include "platform/notification.h"
#include "platform/os_version.h"
#include "server/semaphore.h"
#include "server/server.h"
#include "support/child_reaper.h"
#include "system/kernel_settings.h"
#include "watchdog/watchdog.h"

extern "C" {
// The C++ run-time's own registration: unlike plain atexit it names the image,
// so that the handler runs when this image is unloaded as well as at exit.
int __cxa_atexit(void (*handler)(void*), void* argument, void* image);
extern void* __dso_handle;
}

namespace zu {

pthread_mutex_t g_IP_timer_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_cert_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

pid_t g_loading_process = 0;

void InitializePlatform() {
  const platform::OsVersion version = platform::ReadOsVersion();
  gOSVersion = version.major * 1000000 + version.minor * 1000 + version.patch;
  system::KeepUnnestLogging();
  ::pthread_mutex_init(&g_IP_timer_mutex, nullptr);
  ::pthread_mutex_init(&g_cert_mutex, nullptr);
}

void FinalizePlatform() {
  server::LeaveServer();
  platform::StopNotifications();
  ::pthread_mutex_destroy(&g_cert_mutex);
  ::pthread_mutex_destroy(&g_IP_timer_mutex);
  server::LeaveSemaphore();
  UnRegisterPowerSource();
}

// A forked child shares what its parent still uses (the named semaphore, say),
// and none of the library's threads exist in it.
template <void (*kFinalizer)()>
void RunInLoadingProcess(void* /*argument*/) {
  if (::getpid() == g_loading_process) kFinalizer();
}

// These know by themselves which process they are for: a host that went to the
// background uses them in another one than it loaded the library in.
void RunInAnyProcess(void* /*argument*/) {
  StopChildReaper();
  system::RestoreUnnestLogging();
}

void RegisterFinalizer(void (*finalizer)(void*)) {
  __cxa_atexit(finalizer, nullptr, &__dso_handle);
}

// One constructor in one translation unit, because the order of several is the
// linker's. Exit handlers run in reverse: the platform's first, then the
// watchdog's, which therefore covers everything before it.
[[gnu::constructor]] void Load() {
  g_loading_process = ::getpid();
  watchdog::Initialize();
  RegisterFinalizer(&RunInLoadingProcess<&watchdog::Finalize>);
  InitializePlatform();
  RegisterFinalizer(&RunInAnyProcess);
  RegisterFinalizer(&RunInLoadingProcess<&FinalizePlatform>);
}

}  // namespace
}  // namespace zu
