// The bundle that a file lies in.

#include <sys/stat.h>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "ZuHelper.h"
#include "platform/bundle_information.h"
#include "support/guarded.h"
#include "support/utf8.h"

namespace {

// An application wins over what lies in it, and over all else whose path has
// the text anywhere: hosts rely on this order.
constexpr std::string_view kExtensions[] = {".app", ".bundle", ".framework",
                                            ".plugin", ".kext"};

// Hosts know a product by what never changes in it: its identifier.
constexpr zu::platform::BundleMember kMembers[] = {
    {"ProductName", "CFBundleIdentifier"},
    {"Copyright", "NSHumanReadableCopyright"},
    {"Version", "CFBundleShortVersionString"}};

// Absent when no extension occurs in the path.
std::optional<std::string> BundlePath(std::string_view path) {
  for (const std::string_view extension : kExtensions) {
    const size_t place = path.find(extension);
    if (place == path.npos) continue;
    return std::string(path.substr(0, place + extension.size()));
  }
  return std::nullopt;
}

bool Exists(const char* path) {
  struct stat status;
  return ::stat(path, &status) == 0;
}

}  // namespace

uint32_t GetExecutableInfo(const char* path, char* buffer, uint32_t* size) {
  if (path == nullptr || buffer == nullptr || size == nullptr) return 0;
  return zu::Guarded(__func__, 0u, [=] {
    if (!zu::IsValidUtf8(path) || !Exists(path)) return 0u;
    const std::optional<std::string> bundle = BundlePath(path);
    if (!bundle) return 0u;
    const std::optional<std::string> json =
        zu::platform::BundleInformationJson(*bundle, kMembers);
    if (!json) return 0u;
    if (json->size() <= *size) {
      std::memcpy(buffer, json->data(), json->size());
    }
    *size = static_cast<uint32_t>(json->size());
    return 1u;
  });
}
