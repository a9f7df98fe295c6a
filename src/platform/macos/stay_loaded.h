// Keeping the library's code in place.
#ifndef ZU_PLATFORM_MACOS_STAY_LOADED_H_
#define ZU_PLATFORM_MACOS_STAY_LOADED_H_

#include <dlfcn.h>

namespace zu::platform {

// libdispatch may run a block of ours as long as the process lives, so its code
// must stay in place that long. The handle is never closed.
inline void StayLoaded() {
  Dl_info image;
  if (::dladdr(reinterpret_cast<const void*>(&StayLoaded), &image) != 0) {
    ::dlopen(image.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
  }
}

}  // namespace zu::platform

#endif  // ZU_PLATFORM_MACOS_STAY_LOADED_H_
