#include "platform/power.h"

#include "platform/linux/notification/power_supply.h"

namespace zu::platform {

double EstimateTimeRemaining_s() {
  // How many seconds, nobody asks here.
  return IsPowerUnlimited(ReadPowerSupplies()) ? kTimeRemainingUnlimited
                                               : kTimeRemainingUnknown;
}

}  // namespace zu::platform
