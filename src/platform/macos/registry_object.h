// Owners of the objects in the registry of devices.
#ifndef ZU_PLATFORM_MACOS_REGISTRY_OBJECT_H_
#define ZU_PLATFORM_MACOS_REGISTRY_OBJECT_H_

#include <IOKit/IOKitLib.h>

#include "support/scoped_handle.h"

namespace zu::platform {

struct RegistryObjectTraits {
  using Value = io_object_t;
  static constexpr Value kNone = IO_OBJECT_NULL;
  static void Close(Value object) noexcept { ::IOObjectRelease(object); }
};
using RegistryObject = ScopedHandle<RegistryObjectTraits>;

}  // namespace zu::platform

#endif  // ZU_PLATFORM_MACOS_REGISTRY_OBJECT_H_
