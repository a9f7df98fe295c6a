// Signing Mach-O files, ad-hoc or with a key. Not part of the product.
#ifndef ZU_PLATFORM_LINUX_SIGNING_SIGNER_MACHO_SIGNER_H_
#define ZU_PLATFORM_LINUX_SIGNING_SIGNER_MACHO_SIGNER_H_

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/signing/macho/code_directory.h"
#include "platform/linux/signing/signer/signer.h"

namespace zu::platform {

struct MachOSignOptions {
  std::string identifier;
  // Null: an ad-hoc signature.
  const SigningIdentity* identity = nullptr;
  std::optional<std::string> team = std::nullopt;
  // One directory each, the first being the one that the CMS message signs.
  std::vector<CodeHash> hashes = {CodeHash::kSha256};
  uint32_t flags = 0;  // Beside the ad-hoc flag.
  // What is sealed beside the code. Absent: that slot stays empty; without
  // info_dictionary, the one that the image carries is sealed.
  std::optional<std::vector<std::byte>> info_dictionary = std::nullopt;
  std::optional<std::vector<std::byte>> resources = std::nullopt;
  std::optional<std::vector<std::byte>> entitlements = std::nullopt;
  bool der_entitlements = false;  // Those also in their second form.
  bool replace = false;           // Sign anew what is signed already.
  // What the CMS message gets (signer.h).
  CmsOptions cms = {};
};

// Signs every slice of a Mach-O file, thin or universal: as SignFile in
// signer.h does.
SignResult SignMachO(const std::string& path, const MachOSignOptions& options,
                     std::string& error);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_SIGNER_MACHO_SIGNER_H_
