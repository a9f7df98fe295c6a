// Ciphers as the platform computes them.
#ifndef ZU_PLATFORM_CIPHER_H_
#define ZU_PLATFORM_CIPHER_H_

#include <cstddef>
#include <cstdint>
#include <span>

namespace zu::platform {

inline constexpr size_t kAes256KeySize = 32;
inline constexpr size_t kAesBlockSize = 16;

enum class CipherDirection { kEncrypt, kDecrypt };

// AES-256 in CBC mode with PKCS#7 padding, in one go. `output` may begin where
// `input` does. `produced` gets the number of bytes written, or needed when
// `output` is too small.
//
// The result is CommonCrypto's status: 0, -4301 when `output` is too small
// (decrypting takes the input's length, whatever the padding leaves), -4303
// when ciphertext is not whole blocks, -4304 when its padding is none, -4302
// when the platform cannot do it for want of memory.
[[nodiscard]] int32_t Aes256Cbc(CipherDirection direction,
                                std::span<const std::byte, kAes256KeySize> key,
                                std::span<const std::byte, kAesBlockSize> iv,
                                std::span<const std::byte> input,
                                std::span<std::byte> output, size_t& produced);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_CIPHER_H_
