// Entry points of the frame itself.

#include "ZuHelper.h"
#include "platform/main_thread.h"
#include "platform/string_object.h"
#include "support/guarded.h"

void ZuLogToSystem(const char* /*message*/) {}

void ZuDispatchMain(void) { zu::platform::ParkMainThread(); }

ZuStringRef ZuStringCreate(const uint16_t* units, uint32_t length) {
  if (units == nullptr && length != 0) return nullptr;
  return zu::Guarded(__func__, ZuStringRef{nullptr}, [=] {
    return zu::platform::CreateStringObject(units, length);
  });
}

void ZuStringRelease(ZuStringRef string) {
  zu::platform::ReleaseStringObject(string);
}
