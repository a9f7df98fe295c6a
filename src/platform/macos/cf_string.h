// CoreFoundation strings as ours.
#ifndef ZU_PLATFORM_MACOS_CF_STRING_H_
#define ZU_PLATFORM_MACOS_CF_STRING_H_

#include <CoreFoundation/CoreFoundation.h>

#include <string>

namespace zu::platform {

// All of it, up to a surrogate without its partner, which UTF-8 cannot say.
inline std::string ToUtf8(CFStringRef string) {
  const CFIndex length = ::CFStringGetLength(string);
  CFIndex size = 0;
  ::CFStringGetBytes(string, ::CFRangeMake(0, length), kCFStringEncodingUTF8, 0,
                     false, nullptr, 0, &size);
  std::string text(static_cast<size_t>(size), '\0');
  ::CFStringGetBytes(string, ::CFRangeMake(0, length), kCFStringEncodingUTF8, 0,
                     false, reinterpret_cast<UInt8*>(text.data()), size,
                     nullptr);
  return text;
}

}  // namespace zu::platform

#endif  // ZU_PLATFORM_MACOS_CF_STRING_H_
