// The string object is the library's own here: a length and the units behind
// it, in one block.

#include "platform/string_object.h"

#include <cstdlib>
#include <cstring>

struct ZuString {
  size_t length;  // In units.

  uint16_t* units() { return reinterpret_cast<uint16_t*>(this + 1); }
  const uint16_t* units() const {
    return reinterpret_cast<const uint16_t*>(this + 1);
  }
};

namespace zu::platform {

ZuStringRef CreateStringObject(const uint16_t* units, size_t length) {
  const size_t size = length * sizeof *units;
  auto* const string =
      static_cast<ZuString*>(std::malloc(sizeof(ZuString) + size));
  if (string == nullptr) return nullptr;
  string->length = length;
  if (size != 0) std::memcpy(string->units(), units, size);
  return string;
}

void ReleaseStringObject(ZuStringRef string) {
  std::free(const_cast<ZuString*>(string));
}

size_t LengthOf(ZuStringRef string) { return string->length; }

void CopyUnits(ZuStringRef string, size_t count, uint16_t* destination) {
  if (count != 0) {
    std::memcpy(destination, string->units(), count * sizeof *destination);
  }
}

}  // namespace zu::platform
