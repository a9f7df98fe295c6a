#include "platform/idle.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>

#include "platform/macos/registry_object.h"
#include "platform/macos/scoped_refs.h"

namespace zu::platform {
namespace {

RegistryObject FindFirstService(const char* name) {
  io_iterator_t found = IO_OBJECT_NULL;
  // The matching dictionary is the call's.
  if (::IOServiceGetMatchingServices(MACH_PORT_NULL, ::IOServiceMatching(name),
                                     &found) != KERN_SUCCESS) {
    return {};
  }
  const RegistryObject services(found);
  return RegistryObject(::IOIteratorNext(services.get()));
}

}  // namespace

std::optional<int64_t> ReadIdleTime_ns() {
  const RegistryObject service = FindFirstService("IOHIDSystem");
  if (!service.valid()) return std::nullopt;
  CFMutableDictionaryRef made = nullptr;
  if (::IORegistryEntryCreateCFProperties(
          service.get(), &made, kCFAllocatorDefault, 0) != KERN_SUCCESS) {
    return std::nullopt;
  }
  const ScopedCf<CFMutableDictionaryRef> properties(made);
  const void* const number =
      ::CFDictionaryGetValue(properties.get(), CFSTR("HIDIdleTime"));
  int64_t idle_ns = 0;
  if (number == nullptr || ::CFGetTypeID(number) != ::CFNumberGetTypeID() ||
      !::CFNumberGetValue(static_cast<CFNumberRef>(number), kCFNumberSInt64Type,
                          &idle_ns)) {
    return std::nullopt;
  }
  return idle_ns;
}

}  // namespace zu::platform
