#include "platform/volume.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/macos/registry_object.h"
#include "platform/macos/scoped_refs.h"

namespace zu::platform {
namespace {

bool AddNumber(CFMutableDictionaryRef dictionary, CFStringRef key,
               int32_t number) {
  const ScopedCf<CFNumberRef> value(
      ::CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &number));
  if (!value.valid()) return false;
  ::CFDictionarySetValue(dictionary, key, value.get());
  return true;
}

// The registry's entry of a disk.
RegistryObject FindDisk(dev_t device) {
  ScopedCf<CFMutableDictionaryRef> properties(::CFDictionaryCreateMutable(
      kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
      &kCFTypeDictionaryValueCallBacks));
  if (!properties.valid() ||
      !AddNumber(properties.get(), CFSTR("BSD Major"), major(device)) ||
      !AddNumber(properties.get(), CFSTR("BSD Minor"), minor(device))) {
    return {};
  }
  // The dictionary is the call's.
  return RegistryObject(
      ::IOServiceGetMatchingService(MACH_PORT_NULL, properties.release()));
}

}  // namespace

int64_t ReadCaseSensitivity(const char* path) {
  return ::pathconf(path, _PC_CASE_SENSITIVE);
}

std::optional<bool> IsLocalVolume(const std::string& path) {
  struct statfs volume;
  if (::statfs(path.c_str(), &volume) != 0) return std::nullopt;
  return (volume.f_flags & MNT_LOCAL) != 0;
}

std::optional<std::string> ReadImageFile(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  RegistryObject entry = FindDisk(status.st_dev);
  // That far above its disk the drivers of disk images have the description of
  // the image.
  constexpr int kLevels = 4;
  for (int level = 0; level < kLevels && entry.valid(); ++level) {
    io_registry_entry_t parent = IO_OBJECT_NULL;
    if (::IORegistryEntryGetParentEntry(entry.get(), kIOServicePlane,
                                        &parent) != KERN_SUCCESS) {
      return std::nullopt;
    }
    entry = RegistryObject(parent);
  }
  if (!entry.valid()) return std::nullopt;

  const ScopedCf<CFTypeRef> description(::IORegistryEntryCreateCFProperty(
      entry.get(), CFSTR("Protocol Characteristics"), kCFAllocatorDefault, 0));
  if (!description.valid() ||
      ::CFGetTypeID(description.get()) != ::CFDictionaryGetTypeID()) {
    return std::nullopt;
  }
  const CFTypeRef file =
      ::CFDictionaryGetValue(static_cast<CFDictionaryRef>(description.get()),
                             CFSTR("Virtual Interface Location Path"));
  if (file == nullptr || ::CFGetTypeID(file) != ::CFDataGetTypeID()) {
    return std::nullopt;
  }
  const CFDataRef data = static_cast<CFDataRef>(file);
  const std::string image(
      reinterpret_cast<const char*>(::CFDataGetBytePtr(data)),
      static_cast<size_t>(::CFDataGetLength(data)));
  // A path in ASCII; other bytes, and a NUL, make none.
  for (const char c : image) {
    if (c <= 0) return std::nullopt;
  }
  return image;
}

}  // namespace zu::platform
