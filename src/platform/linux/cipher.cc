// libcrypto's ciphers.

#include "platform/cipher.h"

#include <algorithm>

#include "ZuHelper.h"
#include "platform/linux/signing/shared_verifier.h"

namespace zu::platform {
namespace {

// libcrypto counts in int. Whole blocks.
constexpr size_t kMaxStep = size_t{1} << 30;

const unsigned char* Unsigned(const std::byte* bytes) {
  return reinterpret_cast<const unsigned char*>(bytes);
}

}  // namespace

int32_t Aes256Cbc(CipherDirection direction,
                  std::span<const std::byte, kAes256KeySize> key,
                  std::span<const std::byte, kAesBlockSize> iv,
                  std::span<const std::byte> input, std::span<std::byte> output,
                  size_t& produced) {
  const bool encrypt = direction == CipherDirection::kEncrypt;
  const size_t partial = input.size() % kAesBlockSize;
  produced = input.size() + (encrypt ? kAesBlockSize - partial : 0);
  if (output.size() < produced) return ZU_CRYPT_BUFFER_TOO_SMALL;
  produced = 0;
  if (!encrypt && partial != 0) return ZU_CRYPT_ALIGNMENT_ERROR;

  const std::shared_ptr<const CryptoContext> context = SharedCryptoContext();
  const ScopedErrorMark mark;
  // Wipes the key schedule and the block that it holds back when it goes.
  const CipherContextPtr cipher(EVP_CIPHER_CTX_new());
  if (!context || !cipher ||
      EVP_CipherInit_ex2(cipher.get(), context->MessageCipher(),
                         Unsigned(key.data()), Unsigned(iv.data()),
                         encrypt ? 1 : 0, nullptr) != 1) {
    return ZU_CRYPT_MEMORY_FAILURE;
  }
  auto* const out = reinterpret_cast<unsigned char*>(output.data());
  // Appends what becomes of the first `size` bytes of `input`.
  const auto take = [&](size_t size) {
    int written = 0;
    if (EVP_CipherUpdate(cipher.get(), out + produced, &written,
                         Unsigned(input.data()), static_cast<int>(size)) != 1) {
      return false;
    }
    produced += static_cast<size_t>(written);
    input = input.subspan(size);
    return true;
  };

  // While padding is looked for, decrypting holds a block back and so runs
  // behind its input, which in place is overwritten then. Only the last block
  // can have any.
  EVP_CIPHER_CTX_set_padding(cipher.get(), 0);
  while (input.size() > kAesBlockSize) {
    const size_t whole = (input.size() - 1) / kAesBlockSize * kAesBlockSize;
    if (!take(std::min(whole, kMaxStep))) return ZU_CRYPT_MEMORY_FAILURE;
  }
  EVP_CIPHER_CTX_set_padding(cipher.get(), 1);
  if (!take(input.size())) return ZU_CRYPT_MEMORY_FAILURE;
  int written = 0;
  if (EVP_CipherFinal_ex(cipher.get(), out + produced, &written) != 1) {
    return encrypt ? ZU_CRYPT_MEMORY_FAILURE : ZU_CRYPT_DECODE_ERROR;
  }
  produced += static_cast<size_t>(written);
  return ZU_CRYPT_SUCCESS;
}

}  // namespace zu::platform
