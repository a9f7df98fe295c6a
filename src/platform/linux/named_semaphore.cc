#include "platform/named_semaphore.h"

#include <unistd.h>

#include "build_values.h"

namespace zu::platform {

// Where the C library keeps them is part of its interface: see sem_overview(7).
int UnlinkSemaphoreInHandler() {
  return ::unlink("/dev/shm/sem." ZU_SEMAPHORE_NAME);
}

}  // namespace zu::platform
