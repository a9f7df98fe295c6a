// Entry points of the agent's components, and what the components are called.

#include "ZuHelper.h"
#include "build_values.h"

namespace {

// Property lists of launch daemons.
constexpr char kZuService[] = ZU_VENDOR_PREFIX ".agent_service.plist";
constexpr char kZuExtension[] = ZU_VENDOR_PREFIX ".zubrantes.plist";
constexpr char kOrvexService[] = ZU_VENDOR_PREFIX ".zuorvex_service.plist";

// Kernel extensions: their bundles, and these bundles' identifiers.
constexpr char kZuKext[] = "ZuShieldDrvOSX.kext";
constexpr char kZuKextId[] = ZU_KEXT_VENDOR_PREFIX ".ZuShieldDrvOSX";
constexpr char kOrvexKext[] = "ZuOrvexMacOSDriver.kext";
constexpr char kOrvexKextId[] = ZU_KEXT_VENDOR_PREFIX ".ZuOrvexMacOSDriver";

}  // namespace

uint32_t ZuStartZuService(void) { return StartService(kZuService); }
uint32_t ZuStopZuService(void) { return StopService(kZuService); }
uint32_t ZuStartZuExtension(void) { return StartService(kZuExtension); }
uint32_t ZuStopZuExtension(void) { return StopService(kZuExtension); }
uint32_t ZuStartOrvexService(void) { return StartService(kOrvexService); }
uint32_t ZuStopOrvexService(void) { return StopService(kOrvexService); }
uint32_t ZuStartZuKext(void) { return StartKext(kZuKext); }
uint32_t ZuStopZuKext(void) { return StopKext(kZuKextId); }
uint32_t ZuStartOrvexKext(void) { return StartKext(kOrvexKext); }
uint32_t ZuStopOrvexKext(void) { return StopKext(kOrvexKextId); }

uint32_t ZuStartZuUpdater(const char* launch_path,
                          const char* working_directory,
                          const char* first_argument,
                          const char* second_argument) {
  return StartZuUpdater(launch_path, working_directory, first_argument,
                        second_argument);
}

uint32_t ZuStartZuUI(const uint32_t* users, uint32_t count) {
  return StartZuUI(users, count);
}

uint32_t ZuStopZuUI(uint32_t* users, uint32_t* count) {
  return StopZuUI(users, count);
}
