// Power-source and network-change notifications: one host callback for each.

#include <atomic>
#include <utility>

#include "ZuHelper.h"
#include "platform/notification.h"
#include "platform/power.h"
#include "support/guarded.h"
#include "support/log.h"

ZuAddressChangeCallback gAddressChangeFunc = nullptr;

namespace zu {
namespace {

constexpr char kPowerName[] = "com.apple.system.powersources.timeremaining";
constexpr char kNetworkName[] = "com.apple.system.config.network_change";

std::atomic<ZuPowerSourceCallback> gPowerSourcesFunc{nullptr};
std::atomic<int32_t> gPowerSourceToken{platform::kNoNotificationToken};
std::atomic<int32_t> gAddressChangeToken{platform::kNoNotificationToken};

// The exported callback is a plain pointer for the host's sake, and an atomic
// one for ours.
ZuAddressChangeCallback LoadAddressChange() {
  return __atomic_load_n(&gAddressChangeFunc, __ATOMIC_SEQ_CST);
}
void ClearAddressChange() {
  __atomic_store_n(&gAddressChangeFunc, nullptr, __ATOMIC_SEQ_CST);
}
bool HoldAddressChange(ZuAddressChangeCallback callback) {
  ZuAddressChangeCallback none = nullptr;
  return __atomic_compare_exchange_n(&gAddressChangeFunc, &none, callback,
                                     false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

bool IsPowerUnlimited() {
  return platform::EstimateTimeRemaining_s() ==
         platform::kTimeRemainingUnlimited;
}

void HandlePowerChange() {
  const bool unlimited = IsPowerUnlimited();
  const ZuPowerSourceCallback callback = gPowerSourcesFunc;
  if (callback != nullptr) callback(unlimited ? 1 : 0);
}

void HandleNetworkChange() {
  const ZuAddressChangeCallback callback = LoadAddressChange();
  if (callback == nullptr) return;
  LogError("RegisterAddressChangeFunc - Calling callback");
  callback();
}

bool Subscribe(const char* name, std::atomic<int32_t>& token,
               void (*handler)()) {
  int32_t made = platform::kNoNotificationToken;
  const bool registered = Guarded("Subscribe", false, [&] {
    // A lambda's type stays inside, that of a pointer would be exported.
    return platform::RegisterNotification(name, made, [handler] { handler(); });
  });
  // There is an older one where a null power callback was registered, which
  // counts as none held.
  const int32_t older = token.exchange(made);
  if (older >= 0) platform::CancelNotification(older);
  return registered;
}

bool Unsubscribe(std::atomic<int32_t>& token) {
  const int32_t held = token.exchange(platform::kNoNotificationToken);
  if (held < 0) return false;
  platform::CancelNotification(held);
  return true;
}

}  // namespace
}  // namespace zu

// A callback whose registration failed stays held. From then on nothing is
// registered or given up any more: hosts see the first failure and no second.
uint8_t RegisterPowerSource(ZuPowerSourceCallback callback,
                            uint8_t* unlimited) {
  if (unlimited == nullptr) return 0;
  ZuPowerSourceCallback none = nullptr;
  const bool registered =
      !zu::gPowerSourcesFunc.compare_exchange_strong(none, callback) ||
      zu::Subscribe(zu::kPowerName, zu::gPowerSourceToken,
                    &zu::HandlePowerChange);
  *unlimited = zu::Guarded(__func__, uint8_t{0}, [] {
    return static_cast<uint8_t>(zu::IsPowerUnlimited() ? 1 : 0);
  });
  return registered ? 1 : 0;
}

void UnRegisterPowerSource(void) {
  if (zu::Unsubscribe(zu::gPowerSourceToken)) zu::gPowerSourcesFunc = nullptr;
}

uint8_t RegisterAddressChangeFunc(ZuAddressChangeCallback callback) {
  if (callback == nullptr || !zu::HoldAddressChange(callback)) {
    zu::LogError("RegisterAddressChangeFunc - Bad parameters");
    return 0;
  }
  if (zu::Subscribe(zu::kNetworkName, zu::gAddressChangeToken,
                    &zu::HandleNetworkChange)) {
    return 1;
  }
  zu::LogError("RegisterAddressChangeFunc - Couldn't register callback");
  return 0;
}

void UnRegisterAddressChange(void) {
  if (zu::Unsubscribe(zu::gAddressChangeToken)) zu::ClearAddressChange();
}
