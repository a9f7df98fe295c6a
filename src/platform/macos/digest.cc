// CommonCrypto's digests.

#include "platform/digest.h"

#include <CommonCrypto/CommonDigest.h>
#include <algorithm>
#include <limits>

namespace zu::platform {

static_assert(kSha1Size == CC_SHA1_DIGEST_LENGTH);

struct Sha1Stream::State {
  CC_SHA1_CTX context;
};

Sha1Stream::Sha1Stream() : state_(std::make_unique<State>()) {
  if (::CC_SHA1_Init(&state_->context) != 1) state_.reset();
}

Sha1Stream::~Sha1Stream() = default;

void Sha1Stream::Update(std::span<const std::byte> data) {
  while (state_ && !data.empty()) {
    // It counts in 32 bits.
    const auto piece = data.first(
        std::min<size_t>(data.size(), std::numeric_limits<CC_LONG>::max()));
    if (::CC_SHA1_Update(&state_->context, piece.data(),
                         static_cast<CC_LONG>(piece.size())) != 1) {
      state_.reset();
    }
    data = data.subspan(piece.size());
  }
}

bool Sha1Stream::Finish(std::span<std::byte, kSha1Size> digest) {
  return state_ &&
         ::CC_SHA1_Final(reinterpret_cast<unsigned char*>(digest.data()),
                         &state_->context) == 1;
}

bool Sha1(std::span<const std::byte> data,
          std::span<std::byte, kSha1Size> digest) {
  Sha1Stream stream;
  stream.Update(data);
  return stream.Finish(digest);
}

}  // namespace zu::platform
