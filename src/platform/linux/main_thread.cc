#include "platform/main_thread.h"

#include <unistd.h>

namespace zu::platform {

// The server's threads are its own here, so the main thread only has to stay.
// Signal handlers of the host run on it; pause ends after each of them.
void ParkMainThread() {
  for (;;) ::pause();
}

}  // namespace zu::platform
