#include "platform/named_semaphore.h"

#include <semaphore.h>

#include "build_values.h"

namespace zu::platform {

// A plain system call here.
int UnlinkSemaphoreInHandler() { return ::sem_unlink(ZU_SEMAPHORE_NAME); }

}  // namespace zu::platform
