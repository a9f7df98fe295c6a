#include "platform/power.h"

#include <IOKit/ps/IOPowerSources.h>

namespace zu::platform {

static_assert(kTimeRemainingUnknown == kIOPSTimeRemainingUnknown &&
              kTimeRemainingUnlimited == kIOPSTimeRemainingUnlimited);

double EstimateTimeRemaining_s() { return ::IOPSGetTimeRemainingEstimate(); }

}  // namespace zu::platform
