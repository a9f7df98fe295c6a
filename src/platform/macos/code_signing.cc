// Security.framework's code signing services.

#include "platform/code_signing.h"

#include <Security/Security.h>
#include <sys/stat.h>

#include <utility>

#include "platform/macos/cf_string.h"
#include "platform/macos/scoped_refs.h"

namespace zu::platform {

struct Requirement {
  ScopedCf<SecRequirementRef> ref;
};

// A SecCodeRef or a SecStaticCodeRef, as its type identifier says.
struct Code {
  ScopedCf<CFTypeRef> ref;
};

struct Certificate {
  ScopedCf<SecCertificateRef> ref;
};

namespace {

SecStaticCodeRef StaticCodeOf(const Code& code) {
  return static_cast<SecStaticCodeRef>(code.ref.get());
}

template <typename Ref>
ScopedCf<Ref> Retain(Ref object) {
  return ScopedCf<Ref>(static_cast<Ref>(const_cast<void*>(::CFRetain(object))));
}

CodeRef CodeWith(CFTypeRef adopted) {
  ScopedCf<CFTypeRef> object(adopted);
  if (!object.valid()) return nullptr;
  return std::make_shared<const Code>(Code{std::move(object)});
}

std::optional<double> DateAt(CFDictionaryRef dictionary, CFStringRef key) {
  const auto date =
      static_cast<CFDateRef>(::CFDictionaryGetValue(dictionary, key));
  if (date == nullptr) return std::nullopt;
  return ::CFDateGetAbsoluteTime(date);
}

}  // namespace

// The seam's numbers are the system's.
static_assert(kDefaultFlags == kSecCSDefaultFlags);
static_assert(kCheckAllArchitectures == kSecCSCheckAllArchitectures);
static_assert(kEnforceRevocationChecks == kSecCSEnforceRevocationChecks);
static_assert(kConsiderExpiration == kSecCSConsiderExpiration);
static_assert(kTrustResultProceed == kSecTrustResultProceed);
static_assert(kTrustResultUnspecified == kSecTrustResultUnspecified);
static_assert(kTrustResultRecoverableTrustFailure ==
              kSecTrustResultRecoverableTrustFailure);
static_assert(kTrustResultFatalTrustFailure ==
              kSecTrustResultFatalTrustFailure);
static_assert(kDoNotValidateResources == kSecCSDoNotValidateResources);
static_assert(kCheckNestedCode == kSecCSCheckNestedCode);
static_assert(kCodeSigningSuccess == errSecSuccess);
static_assert(kCodeSigningUnsigned == errSecCSUnsigned);
static_assert(kCodeSigningSignatureFailed == errSecCSSignatureFailed);
static_assert(kCodeSigningNotVerifiable == errSecCSSignatureNotVerifiable);
static_assert(kCodeSigningRequirementFailed == errSecCSReqFailed);
static_assert(kCodeSigningNoSuchCode == errSecCSNoSuchCode);

RequirementRef CompileRequirement(const char* text) {
  const ScopedCf<CFStringRef> string(
      ::CFStringCreateWithCString(nullptr, text, kCFStringEncodingUTF8));
  if (!string.valid()) return nullptr;
  SecRequirementRef compiled = nullptr;
  const OSStatus status = ::SecRequirementCreateWithStringAndErrors(
      string.get(), kSecCSDefaultFlags, nullptr, &compiled);
  ScopedCf<SecRequirementRef> requirement(compiled);
  if (status != errSecSuccess || !requirement.valid()) return nullptr;
  return std::make_shared<const Requirement>(
      Requirement{std::move(requirement)});
}

CodeRef CreateStaticCode(const char* path) {
  const ScopedCf<CFStringRef> string(
      ::CFStringCreateWithCString(nullptr, path, kCFStringEncodingUTF8));
  if (!string.valid()) return nullptr;
  struct stat status {};
  if (::stat(path, &status) != 0) return nullptr;
  const ScopedCf<CFURLRef> url(::CFURLCreateWithFileSystemPath(
      nullptr, string.get(), kCFURLPOSIXPathStyle, S_ISDIR(status.st_mode)));
  if (!url.valid()) return nullptr;
  SecStaticCodeRef code = nullptr;
  // The status is not looked at: without code, there is none.
  ::SecStaticCodeCreateWithPath(url.get(), kSecCSDefaultFlags, &code);
  return CodeWith(code);
}

CodeRef CopyCodeOfProcess(const ProcessReference& process) {
  const ScopedCf<CFNumberRef> pid(
      ::CFNumberCreate(nullptr, kCFNumberSInt32Type, &process.pid));
  if (!pid.valid()) return nullptr;
  const void* keys[] = {kSecGuestAttributePid};
  const void* values[] = {pid.get()};
  const ScopedCf<CFDictionaryRef> attributes(::CFDictionaryCreate(
      nullptr, keys, values, 1, &kCFTypeDictionaryKeyCallBacks,
      &kCFTypeDictionaryValueCallBacks));
  if (!attributes.valid()) return nullptr;
  SecCodeRef guest = nullptr;
  const OSStatus status = ::SecCodeCopyGuestWithAttributes(
      nullptr, attributes.get(), kSecCSDefaultFlags, &guest);
  CodeRef code = CodeWith(guest);
  return status == errSecSuccess ? code : nullptr;
}

CodeKind KindOf(const Code& code) {
  const CFTypeID type = ::CFGetTypeID(code.ref.get());
  if (type == ::SecStaticCodeGetTypeID()) return CodeKind::kStatic;
  if (type == ::SecCodeGetTypeID()) return CodeKind::kDynamic;
  return CodeKind::kOther;
}

int32_t CheckStaticCodeValidity(const Code& code, uint32_t flags,
                                const Requirement* requirement) {
  return ::SecStaticCodeCheckValidityWithErrors(
      StaticCodeOf(code), flags,
      requirement != nullptr ? requirement->ref.get() : nullptr, nullptr);
}

int32_t CheckCodeValidity(const Code& code, uint32_t flags,
                          const Requirement* requirement) {
  return ::SecCodeCheckValidity(
      static_cast<SecCodeRef>(const_cast<void*>(code.ref.get())), flags,
      requirement != nullptr ? requirement->ref.get() : nullptr);
}

std::optional<SigningInformation> CopySigningInformation(const Code& code) {
  CFDictionaryRef copied = nullptr;
  ::SecCodeCopySigningInformation(StaticCodeOf(code), kSecCSSigningInformation,
                                  &copied);
  const ScopedCf<CFDictionaryRef> dictionary(copied);
  if (!dictionary.valid()) return std::nullopt;
  return SigningInformation{
      .certificates = CertificatesOf(static_cast<CFArrayRef>(
          ::CFDictionaryGetValue(dictionary.get(), kSecCodeInfoCertificates))),
      .timestamp = DateAt(dictionary.get(), kSecCodeInfoTimestamp),
      .signing_time = DateAt(dictionary.get(), kSecCodeInfoTime)};
}

std::optional<std::string> SubjectSummary(const Certificate& certificate) {
  const ScopedCf<CFStringRef> summary(
      ::SecCertificateCopySubjectSummary(certificate.ref.get()));
  if (!summary.valid()) return std::nullopt;
  return ToUtf8(summary.get());
}

std::vector<std::byte> EncodedCertificate(const Certificate& certificate) {
  const ScopedCf<CFDataRef> data(
      ::SecCertificateCopyData(certificate.ref.get()));
  if (!data.valid()) return {};
  const auto* const bytes =
      reinterpret_cast<const std::byte*>(::CFDataGetBytePtr(data.get()));
  return {bytes, bytes + ::CFDataGetLength(data.get())};
}

std::optional<uint32_t> EvaluateTrustForRevocation(
    std::span<const CertificateRef> certificates) {
  const ScopedCf<SecPolicyRef> policy(::SecPolicyCreateRevocation(
      kSecRevocationOCSPMethod | kSecRevocationCRLMethod));
  if (!policy.valid()) return std::nullopt;
  const ScopedCf<CFArrayRef> array(CreateCertificatesObject(certificates));
  if (!array.valid()) return std::nullopt;
  SecTrustRef made = nullptr;
  const OSStatus status =
      ::SecTrustCreateWithCertificates(array.get(), policy.get(), &made);
  const ScopedCf<SecTrustRef> trust(made);
  if (status != errSecSuccess || !trust.valid()) return std::nullopt;
  SecTrustResultType result = kSecTrustResultInvalid;
  // Its successor reports a boolean in place of the result.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
  if (::SecTrustEvaluate(trust.get(), &result) != errSecSuccess) {
    return std::nullopt;
  }
#pragma clang diagnostic pop
  return result;
}

CodeRef AdoptCodeObject(ZuCodeRef object) { return CodeWith(object); }

CodeRef ShareCodeObject(ZuCodeRef object) {
  return object != nullptr ? CodeWith(::CFRetain(object)) : nullptr;
}

ZuCodeRef ReleaseCodeObject(CodeRef code) {
  if (!code) return nullptr;
  return Retain(StaticCodeOf(*code)).release();
}

std::vector<CertificateRef> CertificatesOf(ZuCertificatesRef object) {
  std::vector<CertificateRef> certificates;
  const CFIndex count = object != nullptr ? ::CFArrayGetCount(object) : 0;
  for (CFIndex i = 0; i < count; ++i) {
    auto* const certificate = static_cast<SecCertificateRef>(
        const_cast<void*>(::CFArrayGetValueAtIndex(object, i)));
    certificates.push_back(
        std::make_shared<const Certificate>(Certificate{Retain(certificate)}));
  }
  return certificates;
}

ZuCertificatesRef CreateCertificatesObject(
    std::span<const CertificateRef> certificates) {
  ScopedCf<CFMutableArrayRef> array(
      ::CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
  if (!array.valid()) return nullptr;
  for (const CertificateRef& certificate : certificates) {
    ::CFArrayAppendValue(array.get(), certificate->ref.get());
  }
  return array.release();
}

void ReleaseCertificatesObject(ZuCertificatesRef object) {
  const ScopedCf<CFArrayRef> released(object);
}

}  // namespace zu::platform
