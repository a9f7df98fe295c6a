// What a file's, a bundle's or a process's signature is worth, and whose it
// is.
#ifndef ZU_SIGNING_SIGNATURE_STATUS_H_
#define ZU_SIGNING_SIGNATURE_STATUS_H_

#include <cstdint>
#include <span>

#include "platform/code_signing.h"

namespace zu::signing {

using SignatureStatus = uint32_t;  // ZU_SIGNATURE_...

// The code at a path; null without one (or without a path).
platform::CodeRef GetSecStaticCodeRef(const char* path);

// Writes the summary of a certificate's subject, terminated. Empties the
// buffer when there is no certificate, it has no summary or that does not fit;
// does nothing without a buffer.
void GetCertificateSubject(const platform::CertificateRef& certificate,
                           char* buffer, uint32_t capacity);

// Where the details of a signature go. Every buffer may be null.
struct SignatureDetails {
  char* issuer_name = nullptr;
  uint32_t issuer_capacity = 0;
  char* signer_name = nullptr;
  uint32_t signer_capacity = 0;
  char* signing_date = nullptr;
  uint32_t date_capacity = 0;
};

// The queries that the public header describes. Without code the first leaves
// the buffers alone, the second empties them.
SignatureStatus StatusForPath(const char* path, bool check_revocation,
                              const SignatureDetails& details);
SignatureStatus StatusOfCode(const platform::CodeRef& code,
                             bool check_revocation,
                             const SignatureDetails& details);

// Whether a chain, leaf first, is trusted and not revoked.
bool ChainIsTrusted(std::span<const platform::CertificateRef> certificates);

// Writes "month/day/year hour:minute" (GMT) for a time in seconds since
// 2001-01-01 00:00 GMT, terminated, if it fits. Not a number counts as 0.
void FormatSigningDate(double absolute_time, char* buffer, uint32_t capacity);

}  // namespace zu::signing

#endif  // ZU_SIGNING_SIGNATURE_STATUS_H_
