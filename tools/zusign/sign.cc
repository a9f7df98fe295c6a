// zusign sign: one command for all kinds of code.

#include <sys/stat.h>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/linux/signing/appended/appended_signature.h"
#include "platform/linux/signing/bundle/bundle_layout.h"
#include "platform/linux/signing/signer/bundle_signer.h"
#include "platform/linux/signing/signer/macho_signer.h"
#include "platform/linux/signing/signer/signer.h"
#include "platform/linux/signing/trust/certificates.h"
#include "zusign.h"

namespace zu::sign {
namespace {

using platform::SigningIdentity;
using platform::SignResult;

enum class CodeKind { kBundle, kAppended, kMachO };

std::optional<std::string> ReadText(const char* path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::string text(std::istreambuf_iterator<char>(file), {});
  if (file.bad()) return std::nullopt;
  return text;
}

// Absent, with errno set, when it cannot be opened.
std::optional<CodeKind> KindOf(const char* path) {
  const FileDescriptor file = OpenFile(path);
  struct stat status {};
  if (!file.valid() || ::fstat(file.get(), &status) != 0) return std::nullopt;
  // A bundle's main executable stands for the bundle.
  if (S_ISDIR(status.st_mode) || platform::FindBundleOfExecutable(path)) {
    return CodeKind::kBundle;
  }
  // What neither signer knows, that of Mach-O files refuses.
  using State = platform::SignatureLayout::State;
  return platform::ReadSignatureLayout(file.get()).state == State::kNeither
             ? CodeKind::kMachO
             : CodeKind::kAppended;
}

// Whether the options go together, and with this kind of code.
ExitCode CheckOptions(const Arguments& arguments, CodeKind kind) {
  const bool has_entitlements = arguments.entitlements != nullptr;
  if (arguments.ad_hoc) {
    if (arguments.key != nullptr || arguments.cert != nullptr ||
        arguments.chain != nullptr || arguments.timestamp != nullptr) {
      return Fail(kUsage, "--ad-hoc goes without a key and a timestamp");
    }
  } else if (arguments.key == nullptr || arguments.cert == nullptr) {
    return Fail(kUsage, "sign needs --key and --cert, or --ad-hoc");
  }
  if (kind == CodeKind::kAppended &&
      (arguments.ad_hoc || arguments.team != nullptr || has_entitlements ||
       !arguments.hashes.empty())) {
    return Fail(kUsage,
                "--ad-hoc, --team, --entitlements and --hash are for Mach-O "
                "files and bundles");
  }
  return kGood;
}

// kGood when `identity` can be used.
ExitCode ReadIdentity(const Arguments& arguments,
                      std::optional<SigningIdentity>& identity) {
  std::string texts[3];
  const char* const paths[3] = {arguments.key, arguments.cert, arguments.chain};
  for (size_t i = 0; i < std::size(paths); ++i) {
    if (paths[i] == nullptr) continue;
    std::optional<std::string> text = ReadText(paths[i]);
    if (!text) return Fail(kSystem, "%s: cannot be read", paths[i]);
    texts[i] = *std::move(text);
  }
  std::string error;
  identity =
      SigningIdentity::FromPem(texts[0], texts[1] + "\n" + texts[2], error);
  if (!identity) return Fail(kSystem, "%s", error.c_str());
  if (!platform::MaySignCode(*identity->leaf)) {
    return Fail(kSystem,
                "%s: the certificate is not for signing code (extended key "
                "usage codeSigning, key usage digitalSignature)",
                arguments.cert);
  }
  return kGood;
}

platform::TimestampSource TimestampFrom(const char* source) {
  if (source == nullptr) return nullptr;
  return std::string_view(source).starts_with("http://")
             ? platform::TimestampFromResponder(source)
             : platform::TimestampFromFile(source);
}

}  // namespace

ExitCode Sign(const Arguments& arguments) {
  const std::optional<CodeKind> kind = KindOf(arguments.path);
  if (!kind) {
    return Fail(kSystem, "%s: %s", arguments.path, std::strerror(errno));
  }
  const ExitCode usage = CheckOptions(arguments, *kind);
  if (usage != kGood) return usage;

  std::optional<SigningIdentity> identity;
  if (!arguments.ad_hoc) {
    const ExitCode code = ReadIdentity(arguments, identity);
    if (code != kGood) return code;
  }
  const std::string path = arguments.path;
  platform::MachOSignOptions options{
      .identifier = arguments.identifier != nullptr ? arguments.identifier : "",
      .identity = identity ? &*identity : nullptr,
      .replace = arguments.replace,
      .cms = {.timestamp = TimestampFrom(arguments.timestamp)}};
  if (arguments.team != nullptr) options.team = arguments.team;
  if (!arguments.hashes.empty()) options.hashes = arguments.hashes;
  if (arguments.entitlements != nullptr) {
    const auto text = ReadText(arguments.entitlements);
    if (!text) {
      return Fail(kSystem, "%s: cannot be read", arguments.entitlements);
    }
    const auto bytes = std::as_bytes(std::span(*text));
    options.entitlements.emplace(bytes.begin(), bytes.end());
  }
  std::string error;
  SignResult result = SignResult::kFailed;
  switch (*kind) {
    case CodeKind::kBundle:
      result = platform::SignBundle(path, options, error);
      break;
    case CodeKind::kMachO:
      if (options.identifier.empty()) {
        options.identifier = path.substr(path.rfind('/') + 1);
      }
      result = platform::SignMachO(path, options, error);
      break;
    case CodeKind::kAppended:
      result = platform::SignFile(path, *identity,
                                  {.identifier = options.identifier,
                                   .replace = options.replace,
                                   .timestamp = options.cms.timestamp},
                                  error);
      break;
  }
  switch (result) {
    case SignResult::kSigned:
      return kGood;
    case SignResult::kRefused:
      return Fail(kBadFile, "%s", error.c_str());
    case SignResult::kFailed:
      break;
  }
  return Fail(kSystem, "%s", error.c_str());
}

}  // namespace zu::sign
