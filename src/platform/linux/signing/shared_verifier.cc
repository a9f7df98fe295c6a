#include "platform/linux/signing/shared_verifier.h"

#include <openssl/crypto.h>
#include <mutex>

#include "build_values.h"
#include "support/never_destroyed.h"

namespace zu::platform {
namespace {

class Shared {
 public:
  constexpr Shared() = default;

  std::shared_ptr<Verifier> Get() {
    const std::lock_guard lock(mutex_);
    if (!verifier_ && !closed_) {
      verifier_ = Verifier::Create(ZU_ANCHORS_DIRECTORY);
    }
    return closed_ ? nullptr : verifier_;
  }

  void Close() {
    // Held for good in a child that was forked while another thread had it.
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock) return;
    closed_ = true;
    if (!verifier_) return;
    // A host may have shut libcrypto down by itself. Its objects can only be
    // left then.
    if (OPENSSL_init_crypto(0, nullptr) == 1) verifier_.reset();
  }

 private:
  std::mutex mutex_;
  bool closed_ = false;
  std::shared_ptr<Verifier> verifier_;
};

constinit NeverDestroyed<Shared> g_shared;

// Exit handlers run in reverse. The early priority puts libcrypto's own before
// this one, and this one before those that stop the library's threads: first
// nobody verifies any more, then the verifier goes, then libcrypto.
struct SharedLifetime {
  // Without any option nothing would be done and no handler registered; this
  // one costs next to nothing and changes nothing for the host.
  SharedLifetime() { OPENSSL_init_crypto(OPENSSL_INIT_ASYNC, nullptr); }
  ~SharedLifetime() { g_shared.value.Close(); }
};
[[gnu::init_priority(101)]] const SharedLifetime g_lifetime;

}  // namespace

std::shared_ptr<Verifier> SharedVerifier() { return g_shared.value.Get(); }

std::shared_ptr<const CryptoContext> SharedCryptoContext() {
  const std::shared_ptr<Verifier> verifier = SharedVerifier();
  return verifier ? verifier->context() : nullptr;
}

}  // namespace zu::platform
