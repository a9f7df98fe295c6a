// Where the machine's power comes from.
#ifndef ZU_PLATFORM_POWER_H_
#define ZU_PLATFORM_POWER_H_

namespace zu::platform {

// The platform's estimate: seconds that remain, or one of these.
inline constexpr double kTimeRemainingUnknown = -1.0;
inline constexpr double kTimeRemainingUnlimited = -2.0;  // External power.

double EstimateTimeRemaining_s();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_POWER_H_
