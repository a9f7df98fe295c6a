// Entry points of code signing: null tests, a lock, and the objects that hosts
// hold.

#include <pthread.h>

#include "ZuHelper.h"
#include "interface/locks.h"
#include "platform/code_signing.h"
#include "signing/signature_status.h"
#include "signing/signer_information.h"
#include "support/guarded.h"

namespace {

// Only the low byte of the flag counts: that is what hosts have always set.
bool LowByteSet(int32_t flag) { return static_cast<uint8_t>(flag) != 0; }

}  // namespace

uint32_t ZuAuthenticodeValidateBundle(const char* path) {
  if (path == nullptr) return 0;
  return GetBundleSignatureStatus(path) == ZU_SIGNATURE_VALID ? 1 : 0;
}

uint32_t ZuGetSecThumbprint(const char* path, uint8_t* digest,
                            uint16_t capacity) {
  return GetSecThumbprint(path, digest, capacity);
}

uint32_t ZuAuthenticodeGetInfo(const char* path, int32_t checkRevocation,
                               uint64_t* isSigned, uint32_t* isValid,
                               char* issuerName, char* signerNameCopy,
                               char* signerName, char* signingDate,
                               char* thumbprintHex) {
  ::pthread_mutex_lock(&zu::g_cert_mutex);
  const uint32_t result = ZuAuthenticodeGetModelBundleInfo(
      path, checkRevocation, isSigned, isValid, issuerName, signerNameCopy,
      signerName, signingDate, thumbprintHex);
  ::pthread_mutex_unlock(&zu::g_cert_mutex);
  return result;
}

uint32_t ZuAuthenticodeGetModelBundleInfo(
    const char* path, int32_t checkRevocation, uint64_t* isSigned,
    uint32_t* isValid, char* issuerName, char* signerNameCopy, char* signerName,
    char* signingDate, char* thumbprintHex) {
  return zu::Guarded(__func__, 0u, [=] {
    return zu::signing::QuerySigner(
               path, LowByteSet(checkRevocation),
               {isSigned, isValid, issuerName, signerNameCopy, signerName,
                signingDate, thumbprintHex})
               ? 1u
               : 0u;
  });
}

ZuCodeRef ZuCodeCreateWithPath(const char* path) {
  return zu::Guarded(__func__, ZuCodeRef{nullptr}, [path] {
    return zu::platform::ReleaseCodeObject(
        zu::signing::GetSecStaticCodeRef(path));
  });
}

ZuCodeRef ZuCodeCreateWithPID(int32_t pid) {
  return zu::Guarded(__func__, ZuCodeRef{nullptr}, [pid] {
    return zu::platform::ReleaseCodeObject(
        zu::platform::CopyCodeOfProcess({.pid = pid}));
  });
}

void ZuCodeRelease(ZuCodeRef code) {
  zu::Guarded(__func__, [code] { zu::platform::AdoptCodeObject(code); });
}

ZuCertificatesRef ZuCodeCopyCertificates(ZuCodeRef code) {
  return zu::Guarded(__func__, ZuCertificatesRef{nullptr}, [code] {
    const auto shared = zu::platform::ShareCodeObject(code);
    if (!shared) return ZuCertificatesRef{nullptr};
    const auto information = zu::platform::CopySigningInformation(*shared);
    if (!information || information->certificates.empty()) {
      return ZuCertificatesRef{nullptr};
    }
    return zu::platform::CreateCertificatesObject(information->certificates);
  });
}

void ZuCertificatesRelease(ZuCertificatesRef certificates) {
  zu::platform::ReleaseCertificatesObject(certificates);
}
