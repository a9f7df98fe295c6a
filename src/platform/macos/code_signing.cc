// Security.framework's code signing services.

#include "platform/code_signing.h"

#include <Security/Security.h>

#include <utility>

#include "platform/macos/scoped_refs.h"

namespace zu::platform {

struct Requirement {
  ScopedCf<SecRequirementRef> ref;
};

// A SecCodeRef or a SecStaticCodeRef, as its type identifier says.
struct Code {
  ScopedCf<CFTypeRef> ref;
};

// The seam's numbers are the system's.
static_assert(kDefaultFlags == kSecCSDefaultFlags);
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
  ScopedCf<CFTypeRef> code(guest);
  if (status != errSecSuccess || !code.valid()) return nullptr;
  return std::make_shared<const Code>(Code{std::move(code)});
}

CodeKind KindOf(const Code& code) {
  const CFTypeID type = ::CFGetTypeID(code.ref.get());
  if (type == ::SecStaticCodeGetTypeID()) return CodeKind::kStatic;
  if (type == ::SecCodeGetTypeID()) return CodeKind::kDynamic;
  return CodeKind::kOther;
}

int32_t CheckStaticCodeValidity(const Code& code, uint32_t flags,
                                const Requirement* requirement) {
  return ::SecStaticCodeCheckValidity(
      static_cast<SecStaticCodeRef>(code.ref.get()), flags,
      requirement != nullptr ? requirement->ref.get() : nullptr);
}

int32_t CheckCodeValidity(const Code& code, uint32_t flags,
                          const Requirement* requirement) {
  return ::SecCodeCheckValidity(
      static_cast<SecCodeRef>(const_cast<void*>(code.ref.get())), flags,
      requirement != nullptr ? requirement->ref.get() : nullptr);
}

}  // namespace zu::platform
