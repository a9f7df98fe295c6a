#include "server/admission.h"

#include "ZuHelper.h"
#include "build_values.h"
#include "platform/code_signing.h"
#include "support/guarded.h"
#include "support/log.h"

namespace zu::server {

const char kAdmissionRequirement[] =
    "anchor trusted and certificate leaf [subject.CN] = "
    "\"Developer ID Application: " ZU_DEVELOPER_ID_NAME
    " (" ZU_DEVELOPER_ID_TEAM ")\"";

namespace {

enum class Step { kLookUp, kStaticValidity, kValidity, kCodeType };

// How far the check of one process came, and the status of its last step.
struct Verdict {
  Step step = Step::kLookUp;
  int32_t status = -1;
  bool passed() const { return status == platform::kCodeSigningSuccess; }
};

Verdict CheckProcess(const platform::ProcessReference& process) {
  const auto requirement = platform::CompileRequirement(kAdmissionRequirement);
  if (!requirement) return {};
  const auto code = platform::CopyCodeOfProcess(process);
  if (!code) return {};
  switch (platform::KindOf(*code)) {
    case platform::CodeKind::kStatic:
      return {Step::kStaticValidity, platform::CheckStaticCodeValidity(
                                         *code,
                                         platform::kDoNotValidateResources |
                                             platform::kCheckNestedCode,
                                         requirement.get())};
    case platform::CodeKind::kDynamic:
      return {Step::kValidity,
              platform::CheckCodeValidity(*code, platform::kDefaultFlags,
                                          requirement.get())};
    case platform::CodeKind::kOther:
      break;
  }
  return {Step::kCodeType, -1};
}

}  // namespace

bool ClientIsAllowedToConnect(const platform::ProcessReference& process) {
  const Verdict verdict = CheckProcess(process);
  if (verdict.passed()) return true;
  switch (verdict.step) {
    case Step::kLookUp:
      LogError(
          "%s() : failed calling SecRequirementCreateWithStringAndErrors or "
          "SecCodeCopyGuestWithAttributes",
          "clientIsAllowedToConnect");
      break;
    case Step::kStaticValidity:
      LogError("%s() : failed SecStaticCodeCheckValidity with status = %d",
               "clientIsAllowedToConnect", verdict.status);
      break;
    case Step::kValidity:
      LogError("%s() : failed SecCodeCheckValidity with status = %d",
               "clientIsAllowedToConnect", verdict.status);
      break;
    case Step::kCodeType:
      LogError("%s() : Invalid codeRef type", "clientIsAllowedToConnect");
      break;
  }
  return false;
}

}  // namespace zu::server

uint32_t Util_clientIsSignedByZubrant(int32_t pid) {
  return zu::Guarded(__func__, 0u, [pid] {
    return zu::server::CheckProcess({.pid = pid}).passed() ? 1u : 0u;
  });
}
