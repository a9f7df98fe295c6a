// The compression function of the SHA-256-shaped digest.
#ifndef ZU_CRYPTO_SHA256_BLOCKS_H_
#define ZU_CRYPTO_SHA256_BLOCKS_H_

#include <cstddef>
#include <cstdint>
#include <span>

namespace zu::crypto {

// Takes `count` blocks of 64 bytes into `hash` (H0 to H7).
using Sha256Compression = void(uint64_t* hash, const std::byte* blocks,
                               size_t count);

// One way to compute it.
struct Sha256Method {
  const char* name;
  Sha256Compression* compress;
};

// What this processor can run, the best first; the last is portable. All give
// the same results.
std::span<const Sha256Method> Sha256Methods();

// The best of them.
void CompressSha256(uint64_t* hash, const std::byte* blocks, size_t count);

}  // namespace zu::crypto

#endif  // ZU_CRYPTO_SHA256_BLOCKS_H_
