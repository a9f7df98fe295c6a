// The platform's immutable string object, seen as UTF-16 code units.
#ifndef ZU_PLATFORM_STRING_OBJECT_H_
#define ZU_PLATFORM_STRING_OBJECT_H_

#include <cstddef>
#include <cstdint>

#include "ZuHelper.h"

namespace zu::platform {

// A new object of `length` units, released with ReleaseStringObject; null when
// memory is short.
ZuStringRef CreateStringObject(const uint16_t* units, size_t length);
void ReleaseStringObject(ZuStringRef string);  // Null is ignored.

size_t LengthOf(ZuStringRef string);
// Copies units 0 to count - 1; `count` is at most LengthOf(string).
void CopyUnits(ZuStringRef string, size_t count, uint16_t* destination);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_STRING_OBJECT_H_
