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
// The signature's format is broken, or slices disagree about the team.
inline constexpr int32_t kCodeSigningSignatureInvalid = -67045;
// The file's own format is broken.
inline constexpr int32_t kCodeSigningBadObjectFormat = -67049;
// The information dictionary is not the sealed one.
inline constexpr int32_t kCodeSigningInfoDictionaryFailed = -67030;
// Resources: there is no seal, its list is not the signed one or is broken;
// one is missing, was changed or was added; it is of a kind that cannot be
// sealed.
inline constexpr int32_t kCodeSigningResourcesNotFound = -67056;
inline constexpr int32_t kCodeSigningResourceDirectoryFailed = -67023;
inline constexpr int32_t kCodeSigningResourcesInvalid = -67055;
inline constexpr int32_t kCodeSigningBadResource = -67054;
inline constexpr int32_t kCodeSigningResourceNotSupported = -67016;
// Code inside a bundle is unsigned, or not what was sealed.
inline constexpr int32_t kCodeSigningUnsignedNestedCode = -67022;
inline constexpr int32_t kCodeSigningBadNestedCode = -67021;
// The chain: it ends in no anchor, has expired, was revoked, or its leaf may
// not sign code.
inline constexpr int32_t kCertificateNotTrusted = -2147409622;
inline constexpr int32_t kCertificateExpired = -2147409654;
inline constexpr int32_t kCertificateRevoked = -2147409652;
inline constexpr int32_t kCertificateUsageInvalid = -2147408889;

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_STATUS_H_
