// The compression function of the MD5-shaped digest.
#ifndef ZU_CRYPTO_MD5_BLOCKS_H_
#define ZU_CRYPTO_MD5_BLOCKS_H_

#include <cstddef>
#include <cstdint>

namespace zu::crypto {

// Takes `count` blocks of 64 bytes into `state` (A, B, C, D).
//
// The function works on sixteen words of 64 bits, twice what a block holds: the
// words behind the block are zero, always, so that a digest depends on its
// message alone.
void CompressMd5(uint64_t* state, const std::byte* blocks, size_t count);

}  // namespace zu::crypto

#endif  // ZU_CRYPTO_MD5_BLOCKS_H_
