// Signing bundles, ad-hoc or with a key. Not part of the product.
#ifndef ZU_PLATFORM_LINUX_SIGNING_SIGNER_BUNDLE_SIGNER_H_
#define ZU_PLATFORM_LINUX_SIGNING_SIGNER_BUNDLE_SIGNER_H_

#include <string>

#include "platform/linux/signing/signer/macho_signer.h"

namespace zu::platform {

// Seals the resources of a bundle (its directory or its main executable), in
// both generations and under the platform's usual rules, and signs its main
// executable, a Mach-O file. Code inside the bundle must be signed already. An
// empty identifier gives the information dictionary's, or else the executable's
// name; what is sealed beside the code is the bundle's. On failure `error` says
// why; the bundle's signature is then the old one, or none that is valid.
SignResult SignBundle(const std::string& path, MachOSignOptions options,
                      std::string& error);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_SIGNER_BUNDLE_SIGNER_H_
