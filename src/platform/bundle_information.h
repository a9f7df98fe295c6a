// What a bundle's information dictionary tells.
#ifndef ZU_PLATFORM_BUNDLE_INFORMATION_H_
#define ZU_PLATFORM_BUNDLE_INFORMATION_H_

#include <optional>
#include <span>
#include <string>

namespace zu::platform {

// A value of the dictionary, and the name that the result has for it.
struct BundleMember {
  const char* name;
  const char* key;
};

// A JSON object, compact and in UTF-8, of those members that the bundle at
// `path` has; "{}" when it has none or there is no bundle. Absent when one of
// them has a value that JSON cannot tell.
std::optional<std::string> BundleInformationJson(
    const std::string& path, std::span<const BundleMember> members);

// One value in UTF-8; absent when there is no such bundle or value, or it is no
// text.
std::optional<std::string> ReadBundleText(const std::string& path,
                                          const char* key);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_BUNDLE_INFORMATION_H_
