#include "platform/os_version.h"

#include <CoreServices/CoreServices.h>

// Gestalt and its selectors are deprecated, but they are the only C interface
// to the version that there is.
#pragma clang diagnostic ignored "-Wdeprecated-declarations"

namespace zu::platform {
namespace {

uint32_t Ask(OSType selector) {
  SInt32 answer = 0;
  const OSErr status = ::Gestalt(selector, &answer);
  return status == noErr ? static_cast<uint32_t>(answer) : 0;
}

}  // namespace

OsVersion ReadOsVersion() {
  return {.major = Ask(gestaltSystemVersionMajor),
          .minor = Ask(gestaltSystemVersionMinor),
          .patch = Ask(gestaltSystemVersionBugFix)};
}

}  // namespace zu::platform
