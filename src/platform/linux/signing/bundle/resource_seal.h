// The seal over a bundle's resources (_CodeSignature/CodeResources).
#ifndef ZU_PLATFORM_LINUX_SIGNING_BUNDLE_RESOURCE_SEAL_H_
#define ZU_PLATFORM_LINUX_SIGNING_BUNDLE_RESOURCE_SEAL_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/property_list.h"
#include "platform/linux/signing/bundle/bundle_layout.h"
#include "platform/linux/signing/bundle/resource_rules.h"
#include "platform/linux/signing/crypto_context.h"

namespace zu::platform {

// Rules that say what becomes of which path, and what was sealed under them.
class ResourceSeal {
 public:
  // Reads the property list; of two generations (files and files2) the newer
  // one counts. Null when it is none, lacks a part or has a rule that cannot
  // be compiled.
  static std::shared_ptr<const ResourceSeal> Parse(
      std::span<const std::byte> bytes);

  // Code that the seal holds to a requirement: for the caller to check.
  struct NestedCode {
    std::string path;  // Absolute.
    std::string requirement;
  };

  // Compares the bundle with the seal: every file is there unless it may be
  // missing, unchanged, and none was added. 0, or the platform's number for
  // what is wrong. Appends the nested code that was found to `nested`, and
  // takes what it reads from `budget`, the bytes that may still be read.
  int32_t VerifyResources(const CryptoContext& context,
                          const BundleLayout& bundle, uint64_t& budget,
                          std::vector<NestedCode>& nested) const;

 private:
  // What was sealed under one path: a digest, a link or code.
  struct Entry {
    enum class Kind { kDigest, kSymlink, kCode };
    Kind kind = Kind::kDigest;
    bool optional = false;  // May be missing.
    int digest = 0;         // As a libcrypto NID.
    // The digest, the link's text or the code's requirement, in the list:
    // a binary one can refer to a long text any number of times.
    std::string_view value = {};
  };
  // Where the comparison stands.
  struct Check;

  ResourceSeal(PropertyList list, ResourceRules rules)
      : list_(std::move(list)), rules_(std::move(rules)) {}

  static std::optional<Entry> ParseEntry(PropertyList::Value value);
  int32_t Compare(const FoundResource& found, Check& check) const;

  const PropertyList list_;
  const ResourceRules rules_;
  bool nested_ = false;  // Of the generation that knows nested code.
  std::map<std::string_view, Entry> entries_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_BUNDLE_RESOURCE_SEAL_H_
