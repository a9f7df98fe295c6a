// Owners of CoreFoundation objects.
#ifndef ZU_PLATFORM_MACOS_SCOPED_REFS_H_
#define ZU_PLATFORM_MACOS_SCOPED_REFS_H_

#include <CoreFoundation/CoreFoundation.h>

#include "support/scoped_handle.h"

namespace zu::platform {

template <typename Ref>
struct CfTraits {
  using Value = Ref;
  static constexpr Value kNone = nullptr;
  static void Close(Value object) noexcept { ::CFRelease(object); }
};
// One reference to a CoreFoundation object, such as a Create or Copy function's
// result.
template <typename Ref>
using ScopedCf = ScopedHandle<CfTraits<Ref>>;

}  // namespace zu::platform

#endif  // ZU_PLATFORM_MACOS_SCOPED_REFS_H_
