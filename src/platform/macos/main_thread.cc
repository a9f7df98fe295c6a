#include "platform/main_thread.h"

#include <dispatch/dispatch.h>

namespace zu::platform {

void ParkMainThread() { ::dispatch_main(); }

}  // namespace zu::platform
