#include "platform/string_object.h"

#include "platform/macos/scoped_refs.h"

namespace zu::platform {

ZuStringRef CreateStringObject(const uint16_t* units, size_t length) {
  return ::CFStringCreateWithCharacters(nullptr, units,
                                        static_cast<CFIndex>(length));
}

void ReleaseStringObject(ZuStringRef string) {
  const ScopedCf<ZuStringRef> released(string);
}

size_t LengthOf(ZuStringRef string) {
  return static_cast<size_t>(::CFStringGetLength(string));
}

void CopyUnits(ZuStringRef string, size_t count, uint16_t* destination) {
  ::CFStringGetCharacters(string, CFRangeMake(0, static_cast<CFIndex>(count)),
                          destination);
}

}  // namespace zu::platform
