#include "platform/code_signing.h"

#include <fcntl.h>
#include <optional>
#include <utility>

#include "platform/linux/signing/process_code.h"
#include "platform/linux/signing/requirement.h"
#include "platform/linux/signing/shared_verifier.h"
#include "platform/linux/signing/static_code.h"
#include "platform/linux/signing/status.h"
#include "platform/linux/signing/trust/certificates.h"
#include "support/utf8.h"

// What hosts hold: a heap cell with the library's own reference.
struct ZuCode {
  zu::platform::CodeRef ref;
};
struct ZuCertificates {
  std::vector<zu::platform::CertificateRef> refs;
};

namespace zu::platform {

struct Requirement {
  Expression expression;
};

// What a path leads to, or what a process runs.
struct Code {
  explicit Code(StaticCode at_rest) : code(std::move(at_rest)) {}
  explicit Code(ProcessCode running)
      : code(StaticCode(
            FileDescriptor(::fcntl(running.executable(), F_DUPFD_CLOEXEC, 0)))),
        process(std::move(running)) {}

  StaticCode code;
  std::optional<ProcessCode> process;
};

struct Certificate {
  CertificatePtr certificate;
};

namespace {

// What any local user can make us read before a new client is refused.
constexpr uint64_t kMaxProcessContentSize = uint64_t{1} << 30;

// From 1970-01-01 to 2001-01-01.
constexpr double kEpochDifference_s = 978307200.0;

std::optional<double> ToAbsoluteTime(std::optional<int64_t> unix_time) {
  if (!unix_time) return std::nullopt;
  return static_cast<double>(*unix_time) - kEpochDifference_s;
}

}  // namespace

RequirementRef CompileRequirement(const char* text) {
  std::optional<Expression> expression = ParseRequirement(text);
  if (!expression) return nullptr;
  return std::make_shared<const Requirement>(
      Requirement{*std::move(expression)});
}

CodeRef CreateStaticCode(const char* path) {
  if (!IsValidUtf8(path)) return nullptr;
  std::optional<StaticCode> code = StaticCode::Open(path);
  if (!code) return nullptr;
  return std::make_shared<const Code>(*std::move(code));
}

CodeRef CopyCodeOfProcess(const ProcessReference& process) {
  std::optional<ProcessCode> code = ProcessCode::Open(process);
  if (!code) return nullptr;
  return std::make_shared<const Code>(*std::move(code));
}

CodeKind KindOf(const Code& code) {
  return code.process ? CodeKind::kDynamic : CodeKind::kStatic;
}

int32_t CheckStaticCodeValidity(const Code& code, uint32_t flags,
                                const Requirement* requirement) {
  const std::shared_ptr<Verifier> verifier = SharedVerifier();
  if (!verifier) return kCodeSigningInternalError;
  VerifyOptions options{
      .requirement =
          requirement != nullptr ? &requirement->expression : nullptr,
      .all_architectures = (flags & kCheckAllArchitectures) != 0,
      .check_resources = (flags & kDoNotValidateResources) == 0,
      .check_nested_code = (flags & kCheckNestedCode) != 0,
      .consider_expiration = (flags & kConsiderExpiration) != 0,
      .check_revocation = (flags & kEnforceRevocationChecks) != 0};
  if (code.process) options.max_content_size = kMaxProcessContentSize;
  return verifier->Verify(code.code, options).status;
}

int32_t CheckCodeValidity(const Code& code, uint32_t flags,
                          const Requirement* requirement) {
  const int32_t status = CheckStaticCodeValidity(code, flags, requirement);
  if (status != kCodeSigningSuccess || !code.process) return status;
  switch (code.process->CurrentState()) {
    case ProcessCode::State::kRunning:
      return kCodeSigningSuccess;
    case ProcessCode::State::kEnded:
      return kCodeSigningNoSuchCode;
    case ProcessCode::State::kReplaced:
      break;
  }
  return kCodeSigningGuestInvalid;
}

std::optional<SigningInformation> CopySigningInformation(const Code& code) {
  const std::shared_ptr<Verifier> verifier = SharedVerifier();
  if (!verifier) return std::nullopt;
  SignatureInformation found = verifier->Inspect(code.code);
  if (found.status == kCodeSigningUnsigned) return std::nullopt;
  SigningInformation information{
      .timestamp = ToAbsoluteTime(found.timestamp),
      .signing_time = ToAbsoluteTime(found.signing_time)};
  for (CertificatePtr& certificate : found.certificates) {
    information.certificates.push_back(std::make_shared<const Certificate>(
        Certificate{std::move(certificate)}));
  }
  return information;
}

std::optional<std::string> SubjectSummary(const Certificate& certificate) {
  return SubjectSummary(*certificate.certificate);
}

std::vector<std::byte> EncodedCertificate(const Certificate& certificate) {
  const X509* const x509 = certificate.certificate.get();
  const int size = i2d_X509(x509, nullptr);
  if (size <= 0) return {};
  std::vector<std::byte> der(static_cast<size_t>(size));
  auto* out = reinterpret_cast<unsigned char*>(der.data());
  i2d_X509(x509, &out);
  return der;
}

std::optional<uint32_t> EvaluateTrustForRevocation(
    std::span<const CertificateRef> certificates) {
  const std::shared_ptr<Verifier> verifier = SharedVerifier();
  if (!verifier || certificates.empty()) return std::nullopt;
  std::vector<CertificatePtr> chain;
  for (const CertificateRef& certificate : certificates) {
    X509_up_ref(certificate->certificate.get());
    chain.emplace_back(certificate->certificate.get());
  }
  switch (verifier->EvaluateTrust(chain)) {
    case Trust::kTrusted:
      return kTrustResultUnspecified;
    case Trust::kUntrusted:
      return kTrustResultRecoverableTrustFailure;
    case Trust::kRevoked:
      break;
  }
  return kTrustResultFatalTrustFailure;
}

CodeRef AdoptCodeObject(ZuCodeRef object) {
  const std::unique_ptr<const ZuCode> adopted(object);
  return ShareCodeObject(object);
}

CodeRef ShareCodeObject(ZuCodeRef object) {
  return object != nullptr ? object->ref : nullptr;
}

ZuCodeRef ReleaseCodeObject(CodeRef code) {
  return code ? new ZuCode{std::move(code)} : nullptr;
}

std::vector<CertificateRef> CertificatesOf(ZuCertificatesRef object) {
  if (object == nullptr) return {};
  return object->refs;
}

ZuCertificatesRef CreateCertificatesObject(
    std::span<const CertificateRef> certificates) {
  return new ZuCertificates{{certificates.begin(), certificates.end()}};
}

void ReleaseCertificatesObject(ZuCertificatesRef object) { delete object; }

}  // namespace zu::platform
