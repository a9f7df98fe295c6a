// The machine's names and properties.
#ifndef ZU_PLATFORM_HOST_H_
#define ZU_PLATFORM_HOST_H_

#include <optional>
#include <string>

namespace zu::platform {

// Both in UTF-8; absent when the system has none.
std::optional<std::string> ReadNetworkName();
std::optional<std::string> ReadLocalizedName();  // The one for people.

// A text property of the machine, by the platform's name for it; absent when
// it has no such property or may not tell.
std::optional<std::string> ReadPlatformProperty(const char* name);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_HOST_H_
