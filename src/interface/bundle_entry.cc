// Entry points of bundles and Mach-O versions.

#include "ZuHelper.h"

uint32_t ZuGetExecutableInfo(const char* path, char* buffer, uint32_t* size) {
  return GetExecutableInfo(path, buffer, size);
}

uint32_t ZuGetDylibVersion(const char* path, uint32_t* version) {
  uint32_t info[2];
  if (version == nullptr || machoGetDylibInfo(path, info, sizeof info) != 0) {
    return 0;
  }
  *version = info[0];
  return 1;
}

uint32_t ZuGetZubrantDylibVersion(const char* path, char* buffer,
                                  int32_t size) {
  return machoGetVersionString(path, buffer, size);
}
