// The library's one verifier and one cryptographic context, made when they are
// first needed and gone before libcrypto is.
#ifndef ZU_PLATFORM_LINUX_SIGNING_SHARED_VERIFIER_H_
#define ZU_PLATFORM_LINUX_SIGNING_SHARED_VERIFIER_H_

#include <memory>

#include "platform/linux/signing/verifier.h"

namespace zu::platform {

// Null when libcrypto fails, and from the process's exit on: threads of the
// host may still be running then. They keep what they have got. Thread-safe.
std::shared_ptr<Verifier> SharedVerifier();
std::shared_ptr<const CryptoContext> SharedCryptoContext();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_SHARED_VERIFIER_H_
