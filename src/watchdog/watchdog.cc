#include "watchdog/watchdog.h"

namespace zu::watchdog {

// No thread is started yet, so there is nothing to stop either.
void Initialize() {}
void Finalize() {}

}  // namespace zu::watchdog
