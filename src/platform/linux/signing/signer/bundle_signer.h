// Signing bundles, ad-hoc or with a key. Not part of the product.
#ifndef ZU_PLATFORM_LINUX_SIGNING_SIGNER_BUNDLE_SIGNER_H_
#define ZU_PLATFORM_LINUX_SIGNING_SIGNER_BUNDLE_SIGNER_H_

#include <optional>
#include <string>
#include <vector>

#include "platform/linux/signing/macho/code_directory.h"
#include "platform/linux/signing/signer/signer.h"

namespace zu::platform {

struct BundleSignOptions {
  // Null: an ad-hoc signature.
  const SigningIdentity* identity = nullptr;
  // Empty: the information dictionary's, or else the executable's name.
  std::string identifier = {};
  std::optional<std::string> team = std::nullopt;
  // One directory each, the first being the one that the CMS message signs.
  std::vector<CodeHash> hashes = {CodeHash::kSha256};
  bool replace = false;  // Sign anew what is signed already.
  CmsOptions cms = {};
};

// Seals a bundle's resources, in both generations and under the platform's
// usual rules, and signs its main executable, a Mach-O file. Code inside the
// bundle must be signed already. On failure `error` says why; the bundle's
// signature is then the old one, or none that is valid.
SignResult SignBundle(const std::string& path, const BundleSignOptions& options,
                      std::string& error);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_SIGNER_BUNDLE_SIGNER_H_
