// Code objects, the rules that signed code can be held to, and the
// certificates that it was signed with.
//
// Results are the platform's own status numbers on every system: 0 is good.
// All functions may be called from any thread; the checks read files (and ask
// the network about revocation) and may block for as long as that takes.
#ifndef ZU_PLATFORM_CODE_SIGNING_H_
#define ZU_PLATFORM_CODE_SIGNING_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "ZuHelper.h"
#include "platform/ipc.h"

namespace zu::platform {

struct Requirement;
struct Code;
struct Certificate;

using RequirementRef = std::shared_ptr<const Requirement>;
using CodeRef = std::shared_ptr<const Code>;
using CertificateRef = std::shared_ptr<const Certificate>;

enum class CodeKind { kStatic, kDynamic, kOther };

// Flags of the checks.
inline constexpr uint32_t kDefaultFlags = 0;
inline constexpr uint32_t kCheckAllArchitectures = 1u << 0;
inline constexpr uint32_t kDoNotValidateResources = 1u << 2;
inline constexpr uint32_t kCheckNestedCode = 1u << 3;
inline constexpr uint32_t kEnforceRevocationChecks = 1u << 30;
inline constexpr uint32_t kConsiderExpiration = 1u << 31;

// Status numbers that callers tell apart.
inline constexpr int32_t kCodeSigningSuccess = 0;
inline constexpr int32_t kCodeSigningUnsigned = -67062;
inline constexpr int32_t kCodeSigningSignatureFailed = -67061;
inline constexpr int32_t kCodeSigningNotVerifiable = -67060;
inline constexpr int32_t kCodeSigningRequirementFailed = -67050;
inline constexpr int32_t kCodeSigningNoSuchCode = -67065;

// Compiles requirement text; null when it does not follow the language.
RequirementRef CompileRequirement(const char* text);

// The code that a path leads to: a file, or a bundle by its directory or its
// main executable. Null when there is nothing, the path is not UTF-8 or no code
// object can be made of what is there.
CodeRef CreateStaticCode(const char* path);

// The code of a running process; null when there is no such process. Uses the
// reference's descriptor, if it has one, only during this call.
CodeRef CopyCodeOfProcess(const ProcessReference& process);

CodeKind KindOf(const Code& code);

// Checks code at rest, or the code that a process runs, against `requirement`
// as well when that is not null.
int32_t CheckStaticCodeValidity(const Code& code, uint32_t flags,
                                const Requirement* requirement);
int32_t CheckCodeValidity(const Code& code, uint32_t flags,
                          const Requirement* requirement);

// What a signature says, checked or not.
struct SigningInformation {
  // Leaf first, then its issuers as far as they are known. Empty: the
  // signature lists none (it is an ad-hoc one, say).
  std::vector<CertificateRef> certificates = {};
  // When it was made, in seconds since 2001-01-01 00:00 UTC: as a
  // time-stamping authority saw it, and as the signer claims.
  std::optional<double> timestamp = std::nullopt;
  std::optional<double> signing_time = std::nullopt;
};

// Absent when the code is not signed or its signature cannot be read.
std::optional<SigningInformation> CopySigningInformation(const Code& code);

// The certificate's subject in a few words, for people; absent when its name
// is empty.
std::optional<std::string> SubjectSummary(const Certificate& certificate);
// The certificate in DER.
std::vector<std::byte> EncodedCertificate(const Certificate& certificate);

// The platform's trust results. The first three count as trusted.
inline constexpr uint32_t kTrustResultProceed = 1;
inline constexpr uint32_t kTrustResultConfirm = 2;
inline constexpr uint32_t kTrustResultUnspecified = 4;
inline constexpr uint32_t kTrustResultRecoverableTrustFailure = 5;
inline constexpr uint32_t kTrustResultFatalTrustFailure = 6;

// Evaluates the chain of the first of `certificates`, helped by the others,
// with revocation by OCSP and lists as the only policy. Asks the network.
// Absent when the evaluation could not be made.
std::optional<uint32_t> EvaluateTrustForRevocation(
    std::span<const CertificateRef> certificates);

// The objects of the public interface; null stands for none. Adopting takes
// the host's reference over, sharing leaves it, releasing gives one away.
CodeRef AdoptCodeObject(ZuCodeRef object);
CodeRef ShareCodeObject(ZuCodeRef object);
ZuCodeRef ReleaseCodeObject(CodeRef code);
std::vector<CertificateRef> CertificatesOf(ZuCertificatesRef object);
ZuCertificatesRef CreateCertificatesObject(
    std::span<const CertificateRef> certificates);
void ReleaseCertificatesObject(ZuCertificatesRef object);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_CODE_SIGNING_H_
