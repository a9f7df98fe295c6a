// NSHost, and the registry's entry of the machine itself. Compiled without
// automatic reference counting: what NSHost gives is autoreleased.

#include "platform/host.h"

#import <Foundation/Foundation.h>

#include "platform/macos/cf_string.h"
#include "platform/macos/registry_object.h"
#include "platform/macos/scoped_refs.h"

namespace zu::platform {
namespace {

std::optional<std::string> TextOf(CFTypeRef value) {
  if (value == nullptr || ::CFGetTypeID(value) != ::CFStringGetTypeID()) {
    return std::nullopt;
  }
  return ToUtf8(static_cast<CFStringRef>(value));
}

}  // namespace

std::optional<std::string> ReadNetworkName() {
  @autoreleasepool {
    return TextOf((CFTypeRef)[[NSHost currentHost] name]);
  }
}

std::optional<std::string> ReadLocalizedName() {
  @autoreleasepool {
    return TextOf((CFTypeRef)[[NSHost currentHost] localizedName]);
  }
}

std::optional<std::string> ReadPlatformProperty(const char* name) {
  const ScopedCf<CFStringRef> key(::CFStringCreateWithCString(
      kCFAllocatorDefault, name, kCFStringEncodingUTF8));
  if (!key.valid()) return std::nullopt;
  // The matching dictionary is the call's.
  const RegistryObject expert(::IOServiceGetMatchingService(
      MACH_PORT_NULL, ::IOServiceMatching("IOPlatformExpertDevice")));
  if (!expert.valid()) return std::nullopt;
  const ScopedCf<CFTypeRef> value(::IORegistryEntryCreateCFProperty(
      expert.get(), key.get(), kCFAllocatorDefault, 0));
  return TextOf(value.get());
}

}  // namespace zu::platform
