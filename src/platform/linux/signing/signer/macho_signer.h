// Signing Mach-O files, ad-hoc or with a key. Not part of the product.
#ifndef ZU_PLATFORM_LINUX_SIGNING_SIGNER_MACHO_SIGNER_H_
#define ZU_PLATFORM_LINUX_SIGNING_SIGNER_MACHO_SIGNER_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/signing/macho/code_directory.h"
#include "platform/linux/signing/signer/cms_writer.h"
#include "platform/linux/signing/signer/signer.h"

namespace zu::platform {

struct MachOSignOptions {
  std::string identifier = {};  // Empty: the file's base name.
  // Null: an ad-hoc signature.
  const SigningIdentity* identity = nullptr;
  // Absent: the organizational unit of the identity's certificate, if that
  // has a team's form.
  std::optional<std::string> team = std::nullopt;
  // One directory each, the first being the one that the CMS message signs.
  std::vector<CodeHash> hashes = {CodeHash::kSha256};
  uint32_t flags = 0;  // Beside the ad-hoc flag.
  // What is sealed beside the code. Absent: that slot stays empty; without
  // info_dictionary, the one that the image carries is sealed.
  std::optional<std::vector<std::byte>> info_dictionary = std::nullopt;
  std::optional<std::vector<std::byte>> resources = std::nullopt;
  std::optional<std::vector<std::byte>> entitlements = std::nullopt;
  // The same in their second form (DER).
  std::optional<std::vector<std::byte>> der_entitlements = std::nullopt;
  bool replace = false;  // Sign anew what is signed already.
  // What the CMS message gets. The digests of the directories are added when
  // there are several.
  CmsOptions cms = {};
};

// Signs every slice of a Mach-O file, thin or universal, in place: on failure
// the file is unchanged and `error` says why. kRefused: not Mach-O, signed
// already, or without room for a signature.
SignResult SignMachO(const std::string& path, const MachOSignOptions& options,
                     std::string& error);

struct UniversalSlice {
  uint32_t cpu_type = 0;
  uint32_t cpu_subtype = 0;
  uint32_t alignment_shift = 0;
  std::vector<std::byte> content;
};
// A universal file of these slices. Absent when they are too much for a 32-bit
// header.
std::optional<std::vector<std::byte>> EncodeUniversal(
    std::span<const UniversalSlice> slices, bool is_64);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_SIGNER_MACHO_SIGNER_H_
