// What /sys/class/power_supply says, and what follows from it.
#ifndef ZU_PLATFORM_LINUX_NOTIFICATION_POWER_SUPPLY_H_
#define ZU_PLATFORM_LINUX_NOTIFICATION_POWER_SUPPLY_H_

#include <span>
#include <string>
#include <vector>

namespace zu::platform {

// One supply: the text of its attributes, empty where it lacks one.
struct PowerSupply {
  std::string type =
      {};  // "Battery", "UPS", or how power comes in: "Mains", ...
  std::string scope = {};    // "Device" when it feeds a peripheral.
  std::string online = {};   // Not a battery's: "0" while no power comes in.
  std::string present = {};  // A battery's: "0" for an empty bay.
  std::string status = {};   // A battery's: "Discharging", "Full", ...
};

// In no order. Supplies that vanish meanwhile are as without attributes.
std::vector<PowerSupply> ReadPowerSupplies();

// Power comes in, or else no battery of the system's is being discharged.
bool IsPowerUnlimited(std::span<const PowerSupply> supplies);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_NOTIFICATION_POWER_SUPPLY_H_
