// Encryption of one message.

#include <limits>

#include "ZuHelper.h"
#include "platform/cipher.h"
#include "support/guarded.h"

namespace {

using zu::platform::CipherDirection;
using zu::platform::kAes256KeySize;
using zu::platform::kAesBlockSize;

// What is longer has no ciphertext whose length could be told.
constexpr uint64_t kMaxLength =
    std::numeric_limits<uint64_t>::max() - kAesBlockSize;

const std::byte* Bytes(const void* data) {
  return static_cast<const std::byte*>(data);
}

}  // namespace

int32_t CCCrypt_Message(const void* input, uint64_t input_length,
                        const void* key, uint64_t key_length, const void* iv,
                        void* output, uint64_t* output_length,
                        uint8_t encrypt) {
  if (input == nullptr || key == nullptr || iv == nullptr ||
      output == nullptr || output_length == nullptr || input_length == 0 ||
      input_length > kMaxLength || key_length != kAes256KeySize) {
    return ZU_CRYPT_PARAMETER_ERROR;
  }
  const uint64_t capacity = *output_length;
  *output_length = 0;  // Where a message fails half way, nothing counts.
  return zu::Guarded(__func__, ZU_CRYPT_MEMORY_FAILURE, [=] {
    size_t produced = 0;
    const int32_t status = zu::platform::Aes256Cbc(
        encrypt != 0 ? CipherDirection::kEncrypt : CipherDirection::kDecrypt,
        std::span<const std::byte, kAes256KeySize>(Bytes(key), kAes256KeySize),
        std::span<const std::byte, kAesBlockSize>(Bytes(iv), kAesBlockSize),
        {Bytes(input), input_length},
        {static_cast<std::byte*>(output), capacity}, produced);
    if (status == ZU_CRYPT_SUCCESS || status == ZU_CRYPT_BUFFER_TOO_SMALL) {
      *output_length = produced;
    }
    return status;
  });
}
