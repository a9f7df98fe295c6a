#include "platform/bundle_information.h"

#include <filesystem>
#include <system_error>

#include "platform/linux/json_writer.h"
#include "platform/linux/signing/bundle/bundle_layout.h"

namespace zu::platform {
namespace {

namespace fs = std::filesystem;

// The directories that may have the dictionary, in the order in which the
// platform looks for them. The first one that is there decides, even when it
// has no dictionary; where there is none it is the bundle itself.
constexpr const char* kPlaces[] = {"Contents", "Resources"};
constexpr const char* kFrameworkPlaces[] = {
    "Resources", "Versions/Current/Resources", "Contents"};

fs::path DirectoryOfDictionary(const fs::path& bundle) {
  const std::span<const char* const> places =
      bundle.extension() == ".framework"
          ? std::span(kFrameworkPlaces)
          : std::span<const char* const>(kPlaces);
  for (const char* const place : places) {
    std::error_code error;
    if (fs::is_directory(bundle / place, error)) return bundle / place;
  }
  return bundle;
}

// Code that is not going to be trusted may have links in it, unlike what
// FindBundle finds.
std::optional<PropertyList> ReadDictionary(const std::string& bundle) {
  std::error_code error;
  const fs::path file =
      fs::canonical(DirectoryOfDictionary(bundle) / "Info.plist", error);
  if (error) return std::nullopt;
  return ReadInformationDictionary(file);
}

}  // namespace

std::optional<std::string> BundleInformationJson(
    const std::string& path, std::span<const BundleMember> members) {
  const std::optional<PropertyList> dictionary = ReadDictionary(path);
  JsonObjectWriter writer;
  for (const BundleMember& member : members) {
    const auto value =
        dictionary ? dictionary->root().Find(member.key) : std::nullopt;
    if (value && !writer.Add(member.name, *value)) return std::nullopt;
  }
  return std::move(writer).Finish();
}

std::optional<std::string> ReadBundleText(const std::string& path,
                                          const char* key) {
  const std::optional<PropertyList> dictionary = ReadDictionary(path);
  const auto value = dictionary ? dictionary->root().Find(key) : std::nullopt;
  const auto text = value ? value->AsString() : std::nullopt;
  if (!text) return std::nullopt;
  return std::string(*text);
}

}  // namespace zu::platform
