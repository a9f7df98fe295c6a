// What becomes of which path in a bundle, and the walk that asks.
#ifndef ZU_PLATFORM_LINUX_SIGNING_BUNDLE_RESOURCE_RULES_H_
#define ZU_PLATFORM_LINUX_SIGNING_BUNDLE_RESOURCE_RULES_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/property_list.h"
#include "platform/linux/signing/bundle/bundle_layout.h"

namespace re2 {
class RE2;
}

namespace zu::platform {

struct ResourceRule {
  double weight = 1;
  bool omit = false;      // What it matches is not sealed.
  bool optional = false;  // ... may be missing.
  bool nested = false;    // ... is code with a signature of its own.
};

class ResourceRules {
 public:
  // Reads a dictionary of POSIX extended regular expressions, each with true,
  // a weight or a dictionary. Absent when it is none, or has an expression that
  // cannot be compiled or that needs too much memory.
  static std::optional<ResourceRules> Parse(PropertyList::Value list);

  ResourceRules(ResourceRules&&) noexcept;
  ResourceRules& operator=(ResourceRules&&) noexcept;
  ~ResourceRules();

  // The heaviest rule that matches somewhere in the path; of equal ones, the
  // first in the list. Null when none does. Paths are plain bytes to the rules:
  // a character outside ASCII is several.
  const ResourceRule* Find(std::string_view path) const;

 private:
  struct Compiled;

  ResourceRules();

  std::vector<Compiled> rules_;
};

// What the walk meets and a rule wants sealed.
struct FoundResource {
  enum class Kind { kFile, kSymlink, kDirectory };  // kDirectory: nested code.
  Kind kind;
  const std::string& path;  // From the bundle's resource_base.
  int directory;            // Where it lies, open during the call.
  const char* name;         // Its name there.
  const ResourceRule& rule;
};

// Calls `visit` for the resources of a bundle, in no particular order, until it
// returns something else than 0. The bundle's own executable and signature are
// none. Without `nested`, as in seals of the first generation, rules know no
// code and symbolic links are left out.
//
// Returns 0, what `visit` returned, or the platform's number for something that
// cannot be a resource or a directory that cannot be read.
int32_t WalkResources(
    const BundleLayout& bundle, const ResourceRules& rules, bool nested,
    const std::function<int32_t(const FoundResource&)>& visit);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_BUNDLE_RESOURCE_RULES_H_
