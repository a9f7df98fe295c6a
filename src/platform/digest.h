// Message digests as the platform computes them.
#ifndef ZU_PLATFORM_DIGEST_H_
#define ZU_PLATFORM_DIGEST_H_

#include <cstddef>
#include <span>

namespace zu::platform {

inline constexpr size_t kSha1Size = 20;

// The SHA-1 digest of `data`. False, with nothing written, when the platform
// cannot compute it.
[[nodiscard]] bool Sha1(std::span<const std::byte> data,
                        std::span<std::byte, kSha1Size> digest);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_DIGEST_H_
