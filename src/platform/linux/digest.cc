// libcrypto's digests.

#include "platform/digest.h"

#include <openssl/evp.h>

#include "platform/linux/signing/shared_verifier.h"

namespace zu::platform {

struct Sha1Stream::State {
  // The algorithm is the context's, and outlives it no more than the process.
  std::shared_ptr<const CryptoContext> context = SharedCryptoContext();
  DigestContextPtr digest{EVP_MD_CTX_new()};
};

Sha1Stream::Sha1Stream() : state_(std::make_unique<State>()) {
  const ScopedErrorMark mark;
  if (!state_->context || !state_->digest ||
      EVP_DigestInit_ex2(state_->digest.get(),
                         state_->context->Digest(NID_sha1), nullptr) != 1) {
    state_.reset();
  }
}

Sha1Stream::~Sha1Stream() = default;

void Sha1Stream::Update(std::span<const std::byte> data) {
  const ScopedErrorMark mark;
  if (state_ &&
      EVP_DigestUpdate(state_->digest.get(), data.data(), data.size()) != 1) {
    state_.reset();
  }
}

bool Sha1Stream::Finish(std::span<std::byte, kSha1Size> digest) {
  const ScopedErrorMark mark;
  return state_ &&
         EVP_DigestFinal_ex(state_->digest.get(),
                            reinterpret_cast<unsigned char*>(digest.data()),
                            nullptr) == 1;
}

bool Sha1(std::span<const std::byte> data,
          std::span<std::byte, kSha1Size> digest) {
  Sha1Stream stream;
  stream.Update(data);
  return stream.Finish(digest);
}

}  // namespace zu::platform
