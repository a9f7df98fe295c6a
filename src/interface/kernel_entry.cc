// Entry points of kernel settings and volumes.

#include "ZuHelper.h"
#include "system/kernel_settings.h"

int32_t ZuGetRootlessConfig(uint32_t* flags) {
  constexpr uint32_t kFirstWithRestrictions = 10011000;
  if (gOSVersion < kFirstWithRestrictions || flags == nullptr) return -1;
  return GetRootlessConfig(flags);
}

int32_t ZuSetSharedRegionUnnestLogging(uint32_t value) {
  const int32_t result = SetSharedRegionUnnestLogging(value);
  if (result == 0) zu::system::NoteUnnestLoggingChange();
  return result;
}

int64_t ZuIsVolumeCaseSensitive(const char* path) {
  return IsVolumeCaseSensitive(path);
}

uint8_t ZuIsParentPathLocal(const char* path) {
  return isParentPathLocal(path);
}
