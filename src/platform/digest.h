// Message digests as the platform computes them.
#ifndef ZU_PLATFORM_DIGEST_H_
#define ZU_PLATFORM_DIGEST_H_

#include <cstddef>
#include <memory>
#include <span>

namespace zu::platform {

inline constexpr size_t kSha1Size = 20;

// The SHA-1 digest of `data`. False, with nothing written, when the platform
// cannot compute it.
[[nodiscard]] bool Sha1(std::span<const std::byte> data,
                        std::span<std::byte, kSha1Size> digest);

// The SHA-1 digest of a message that comes in pieces. May be used by one thread
// after another, not by two at once.
class Sha1Stream {
 public:
  Sha1Stream();
  ~Sha1Stream();
  Sha1Stream(const Sha1Stream&) = delete;
  Sha1Stream& operator=(const Sha1Stream&) = delete;

  void Update(std::span<const std::byte> data);
  // Ends the message; to be called once. False, with nothing written, when the
  // platform failed here or before.
  [[nodiscard]] bool Finish(std::span<std::byte, kSha1Size> digest);

 private:
  struct State;
  std::unique_ptr<State> state_;  // Null once the platform has failed.
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_DIGEST_H_
