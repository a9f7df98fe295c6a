// More of the platform's status numbers, beside those that the seam names.
#ifndef ZU_PLATFORM_LINUX_SIGNING_STATUS_H_
#define ZU_PLATFORM_LINUX_SIGNING_STATUS_H_

#include <cstdint>

namespace zu::platform {

// A signature of a kind that is not supported.
inline constexpr int32_t kCodeSigningSignatureUnsupported = -67059;
// The process has replaced its executable.
inline constexpr int32_t kCodeSigningGuestInvalid = -67063;
// Nothing wrong with the code: the check itself could not be made.
inline constexpr int32_t kCodeSigningInternalError = -67048;
// The signature's format is broken.
inline constexpr int32_t kCodeSigningSignatureInvalid = -67045;
// The chain: it ends in no anchor, has expired, or its leaf may not sign code.
inline constexpr int32_t kCertificateNotTrusted = -2147409622;
inline constexpr int32_t kCertificateExpired = -2147409654;
inline constexpr int32_t kCertificateUsageInvalid = -2147408889;

// Beside the seam's flags.
inline constexpr uint32_t kConsiderExpiration = 1u << 31;

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_STATUS_H_
