// CommonCrypto's digests.

#include "platform/digest.h"

#include <CommonCrypto/CommonDigest.h>

namespace zu::platform {

static_assert(kSha1Size == CC_SHA1_DIGEST_LENGTH);

bool Sha1(std::span<const std::byte> data,
          std::span<std::byte, kSha1Size> digest) {
  return ::CC_SHA1(data.data(), static_cast<CC_LONG>(data.size()),
                   reinterpret_cast<unsigned char*>(digest.data())) != nullptr;
}

}  // namespace zu::platform
