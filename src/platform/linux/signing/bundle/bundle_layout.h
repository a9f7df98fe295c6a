// Bundles: which directories are one, and where their parts lie.
#ifndef ZU_PLATFORM_LINUX_SIGNING_BUNDLE_BUNDLE_LAYOUT_H_
#define ZU_PLATFORM_LINUX_SIGNING_BUNDLE_BUNDLE_LAYOUT_H_

#include <optional>
#include <string>

#include "platform/linux/property_list.h"

namespace zu::platform {

// Absolute paths without symbolic links.
struct BundleLayout {
  std::string root;  // Of a framework: its current version.
  // What the seal's paths start from: Contents where there is one, else root.
  std::string resource_base;
  std::string info_dictionary;  // Empty: it has none.
  // The main executable; empty in a bundle without code.
  std::string executable;
  std::string signature_directory;  // _CodeSignature, there or not.
};

// The information dictionary in a file; absent when that is no regular file
// (not even a link to one) with a property list.
std::optional<PropertyList> ReadInformationDictionary(const std::string& file);

// The bundle in a directory: an application, a framework (with versions or
// without), a kernel extension, a plug-in, any directory with an information
// dictionary in one of its places. Absent when it is none, or its main
// executable is missing or no regular file.
std::optional<BundleLayout> FindBundle(const std::string& directory);

// The bundle whose main executable a file is; absent when it is none's.
std::optional<BundleLayout> FindBundleOfExecutable(const std::string& file);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_BUNDLE_BUNDLE_LAYOUT_H_
