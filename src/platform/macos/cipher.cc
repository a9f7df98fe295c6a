// CommonCrypto's ciphers.

#include "platform/cipher.h"

#include <CommonCrypto/CommonCryptor.h>

namespace zu::platform {

static_assert(kAes256KeySize == kCCKeySizeAES256);
static_assert(kAesBlockSize == kCCBlockSizeAES128);

int32_t Aes256Cbc(CipherDirection direction,
                  std::span<const std::byte, kAes256KeySize> key,
                  std::span<const std::byte, kAesBlockSize> iv,
                  std::span<const std::byte> input, std::span<std::byte> output,
                  size_t& produced) {
  // Its mode is CBC when no option says otherwise.
  return ::CCCrypt(
      direction == CipherDirection::kEncrypt ? kCCEncrypt : kCCDecrypt,
      kCCAlgorithmAES, kCCOptionPKCS7Padding, key.data(), key.size(), iv.data(),
      input.data(), input.size(), output.data(), output.size(), &produced);
}

}  // namespace zu::platform
