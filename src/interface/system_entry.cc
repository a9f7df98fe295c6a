// Entry points of the machine's security settings and identity: forwarding.

#include "ZuHelper.h"

uint8_t ZuIsFireWallOn(void) { return IsFireWallOn(); }

uint8_t ZuIsAutoCheckUpdateEnabled(void) { return IsAutoCheckUpdateEnabled(); }

uint8_t ZuIsFileVaultEnabled(void) { return IsFileVaultEnabled(); }

uint8_t ZuIsGateKeeperEnabled(void) { return IsGateKeeperEnabled(); }

int32_t ZuWebSitesRestricationLevel(void) {
  return WebSitesRestricationLevel();
}

int32_t ZuGetOSRevision(void) { return GetOSRevision(); }

uint32_t ZuGetHostName(int32_t network, char* buffer, int32_t capacity) {
  return GetHostName(network, buffer, capacity);
}

uint32_t ZuGetProductVersion(char* buffer, int32_t capacity) {
  return GetProductVersion(buffer, capacity);
}

uint32_t ZuGetInstallationType(void) { return getInstallationType(); }
