// What rules for signed code may ask about a certificate.
#ifndef ZU_PLATFORM_LINUX_SIGNING_CERTIFICATE_FACTS_H_
#define ZU_PLATFORM_LINUX_SIGNING_CERTIFICATE_FACTS_H_

#include "platform/linux/signing/crypto_context.h"
#include "platform/linux/signing/requirement.h"

namespace zu::platform {

// The value of an extension is the text of a UTF8String, IA5String or
// PrintableString, and of anything else its bytes. Digests that libcrypto
// cannot make are empty, and equal none.
CertificateFacts FactsOf(const X509& certificate);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_CERTIFICATE_FACTS_H_
