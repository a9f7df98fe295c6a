#include "platform/power.h"

#include "platform/linux/notification/power_supply.h"

namespace zu::platform {

double EstimateTimeRemaining_s() {
  return EstimateTimeRemaining_s(ReadPowerSupplies());
}

}  // namespace zu::platform
