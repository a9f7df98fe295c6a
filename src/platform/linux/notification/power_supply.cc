#include "platform/linux/notification/power_supply.h"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "platform/linux/text_file.h"
#include "platform/power.h"

namespace zu::platform {
namespace {

namespace fs = std::filesystem;

constexpr char kClass[] = "/sys/class/power_supply";

// Attribute files hold one line.
std::string ReadAttribute(const fs::path& supply, const char* name) {
  const std::string text = ReadTextFile((supply / name).c_str());
  return text.substr(0, text.find('\n'));
}

bool IsBattery(const PowerSupply& supply) {
  return supply.type == "Battery" || supply.type == "UPS";
}

// 0 for a missing or broken one, which no running battery has.
double Number(const std::string& text) {
  return std::abs(std::strtod(text.c_str(), nullptr));
}

// What batteries hold and give, in units that differ by a factor of an hour.
struct Reserve {
  double content = 0;
  double rate = 0;

  double Lasts_s() const {
    return content > 0 && rate > 0 ? content / rate * 3600
                                   : kTimeRemainingUnknown;
  }
};

}  // namespace

std::vector<PowerSupply> ReadPowerSupplies() {
  std::vector<PowerSupply> supplies;
  std::error_code error;
  for (fs::directory_iterator entry(kClass, error), end; entry != end;
       entry.increment(error)) {
    const auto read = [&entry](const char* name) {
      return ReadAttribute(entry->path(), name);
    };
    supplies.push_back({.type = read("type"),
                        .scope = read("scope"),
                        .online = read("online"),
                        .present = read("present"),
                        .status = read("status"),
                        .energy_now = read("energy_now"),
                        .power_now = read("power_now"),
                        .charge_now = read("charge_now"),
                        .current_now = read("current_now")});
  }
  return supplies;
}

double EstimateTimeRemaining_s(std::span<const PowerSupply> supplies) {
  bool discharging = false;
  Reserve energy;
  Reserve charge;
  for (const PowerSupply& supply : supplies) {
    if (supply.scope == "Device") continue;
    if (!IsBattery(supply)) {
      // 2 is an adapter that can be told what to give.
      if (Number(supply.online) > 0) return kTimeRemainingUnlimited;
      continue;
    }
    if (supply.present == "0") continue;
    // An idle battery will be used once the others are empty.
    energy.content += Number(supply.energy_now);
    charge.content += Number(supply.charge_now);
    if (supply.status != "Discharging") continue;
    discharging = true;
    energy.rate += Number(supply.power_now);
    charge.rate += Number(supply.current_now);
  }
  if (!discharging) return kTimeRemainingUnlimited;
  const double lasts_s = energy.Lasts_s();
  return lasts_s != kTimeRemainingUnknown ? lasts_s : charge.Lasts_s();
}

}  // namespace zu::platform
