#include "platform/linux/notification/power_supply.h"

#include <filesystem>
#include <system_error>

#include "platform/linux/text_file.h"

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
                        .status = read("status")});
  }
  return supplies;
}

bool IsPowerUnlimited(std::span<const PowerSupply> supplies) {
  bool is_discharging = false;
  for (const PowerSupply& supply : supplies) {
    if (supply.scope == "Device") continue;
    if (IsBattery(supply)) {
      is_discharging |= supply.present != "0" && supply.status == "Discharging";
    } else if (!supply.online.empty() && supply.online != "0") {
      return true;  // 2 is an adapter that can be told what to give.
    }
  }
  return !is_discharging;
}

}  // namespace zu::platform
