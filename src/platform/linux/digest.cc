// libcrypto's digests.

#include "platform/digest.h"

#include <openssl/evp.h>

#include "platform/linux/signing/shared_verifier.h"

namespace zu::platform {

bool Sha1(std::span<const std::byte> data,
          std::span<std::byte, kSha1Size> digest) {
  const std::shared_ptr<const CryptoContext> context = SharedCryptoContext();
  const ScopedErrorMark mark;
  return context &&
         EVP_Digest(data.data(), data.size(),
                    reinterpret_cast<unsigned char*>(digest.data()), nullptr,
                    context->Digest(NID_sha1), nullptr) == 1;
}

}  // namespace zu::platform
