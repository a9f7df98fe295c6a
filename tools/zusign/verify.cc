// zusign verify.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "platform/code_signing.h"
#include "platform/linux/signing/requirement.h"
#include "platform/linux/signing/static_code.h"
#include "platform/linux/signing/verifier.h"
#include "zusign.h"

namespace zu::sign {

ExitCode Verify(const Arguments& arguments) {
  std::optional<platform::Expression> rule;
  if (arguments.requirement != nullptr) {
    rule = platform::ParseRequirement(arguments.requirement);
    if (!rule) return Fail(kUsage, "the requirement cannot be understood");
  }
  const auto code = platform::StaticCode::Open(arguments.path);
  if (!code) {
    return Fail(kSystem, "%s: %s", arguments.path, std::strerror(errno));
  }
  const auto verifier = platform::Verifier::Create(arguments.anchors);
  if (!verifier) return Fail(kSystem, "libcrypto cannot be initialized");
  const platform::Verification result = verifier->Verify(
      *code, {.requirement = rule ? &*rule : nullptr,
              .all_architectures = arguments.all_architectures,
              .check_resources = !arguments.no_resources,
              .check_nested_code = !arguments.no_resources,
              .consider_expiration = arguments.consider_expiration,
              .check_revocation = arguments.check_revocation});
  if (result.status != platform::kCodeSigningSuccess) {
    return Fail(CodeFor(result.status), "%s: %s (%d)", arguments.path,
                result.reason, result.status);
  }
  // Whose it is matters as much: anybody can make a valid signature.
  const char* whose = "an anchor vouches for the signer";
  if (result.facts.certificates.empty()) {
    whose = "ad-hoc, signed by nobody";
  } else if (!result.facts.anchor_trusted) {
    whose = "no anchor vouches for the signer";
  }
  std::printf("%s: valid (%s)\n", arguments.path, whose);
  return kGood;
}

}  // namespace zu::sign
