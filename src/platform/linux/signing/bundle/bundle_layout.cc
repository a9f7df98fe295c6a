#include "platform/linux/signing/bundle/bundle_layout.h"

#include <sys/stat.h>
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "platform/linux/signing/file_content.h"
#include "support/allocated.h"

namespace zu::platform {
namespace {

// Absolute and without symbolic links; empty when there is no such thing.
std::string RealPath(const std::string& path) {
  const Allocated<char> real(::realpath(path.c_str(), nullptr));
  return real ? real.get() : std::string();
}

// The type bits of what lies at a path, or 0.
mode_t TypeAt(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

std::string_view Parent(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == path.npos ? std::string_view() : path.substr(0, slash);
}

std::string_view LastPart(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

// A name that leads to nothing but a file of one directory.
bool IsFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == name.npos;
}

// CFBundleExecutable; empty when the dictionary does not say.
std::string ExecutableName(const std::string& info_dictionary) {
  const std::optional<PropertyList> list =
      ReadInformationDictionary(info_dictionary);
  if (!list) return {};
  const auto value = list->root().Find("CFBundleExecutable");
  const auto name = value ? value->AsString() : std::nullopt;
  return name ? std::string(*name) : std::string();
}

// Whether `path` is there without symbolic links on the way from `root`, which
// has none itself.
bool LiesInside(const std::string& path) { return RealPath(path) == path; }

}  // namespace

std::optional<PropertyList> ReadInformationDictionary(const std::string& file) {
  const auto bytes = ReadRegularFile(file, PropertyList::kMaxSize);
  if (!bytes) return std::nullopt;
  return PropertyList::Parse(*bytes);
}

std::optional<BundleLayout> FindBundle(const std::string& directory) {
  const std::string path = RealPath(directory);
  if (path.empty() || path == "/" || TypeAt(path) != S_IFDIR) {
    return std::nullopt;
  }
  BundleLayout layout{.root = path,
                      .resource_base = path,
                      .info_dictionary = path + "/Info.plist",
                      .executable = {},
                      .signature_directory = {}};
  std::string executables = path;
  if (TypeAt(path + "/Contents") == S_IFDIR) {
    // An application or a framework: the loader and we might choose otherwise.
    if (TypeAt(path + "/Versions") != 0) return std::nullopt;
    layout.resource_base = path + "/Contents";
    layout.info_dictionary = layout.resource_base + "/Info.plist";
    executables = layout.resource_base + "/MacOS";
  } else if (TypeAt(path + "/Versions") == S_IFDIR) {
    const std::string version = RealPath(path + "/Versions/Current");
    if (Parent(version) != path + "/Versions" || TypeAt(version) != S_IFDIR) {
      return std::nullopt;
    }
    layout.root = layout.resource_base = executables = version;
    layout.info_dictionary = version + "/Resources/Info.plist";
  } else if (TypeAt(layout.info_dictionary) == 0) {
    layout.info_dictionary = path + "/Resources/Info.plist";
    // Only this tells such a framework from any other directory.
    if (TypeAt(layout.info_dictionary) == 0) return std::nullopt;
  }
  layout.signature_directory = layout.resource_base + "/_CodeSignature";

  std::string name;
  if (TypeAt(layout.info_dictionary) == 0) {
    layout.info_dictionary.clear();
  } else {
    if (TypeAt(layout.info_dictionary) != S_IFREG ||
        !LiesInside(layout.info_dictionary)) {
      return std::nullopt;
    }
    name = ExecutableName(layout.info_dictionary);
  }
  const bool named = !name.empty();
  if (!named) {
    const std::string_view bundle = LastPart(path);
    name = bundle.substr(0, bundle.rfind('.'));
  }
  if (!IsFileName(name)) return std::nullopt;
  std::string executable = executables + "/" + name;
  const mode_t type = TypeAt(executable);
  if (type == S_IFREG && LiesInside(executable)) {
    layout.executable = std::move(executable);
  } else if (named || layout.info_dictionary.empty()) {
    return std::nullopt;
  }
  return layout;
}

std::optional<BundleLayout> FindBundleOfExecutable(const std::string& file) {
  const std::string path = RealPath(file);
  const std::string_view parent = Parent(path);
  const std::string_view above = Parent(parent);
  const bool in_contents =
      LastPart(parent) == "MacOS" && LastPart(above) == "Contents";
  // The bundle's own directory, then one of a version that is not current.
  for (const std::string_view candidate :
       {in_contents || LastPart(above) == "Versions" ? Parent(above)
                                                     : std::string_view(),
        parent}) {
    if (candidate.empty()) continue;
    std::optional<BundleLayout> layout = FindBundle(std::string(candidate));
    if (layout && layout->executable == path) return layout;
  }
  return std::nullopt;
}

}  // namespace zu::platform
