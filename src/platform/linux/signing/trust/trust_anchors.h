// The directory of certificates in which chains may end.
#ifndef ZU_PLATFORM_LINUX_SIGNING_TRUST_TRUST_ANCHORS_H_
#define ZU_PLATFORM_LINUX_SIGNING_TRUST_TRUST_ANCHORS_H_

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/signing/crypto_context.h"

namespace zu::platform {

// What an administrator trusts: certificates in which chains may end, and
// lists of what has been revoked.
struct TrustSet {
  std::shared_ptr<X509_STORE> store;
  std::vector<CrlPtr> lists;
};

class TrustAnchors {
 public:
  TrustAnchors(std::shared_ptr<const CryptoContext> context,
               std::string directory)
      : context_(std::move(context)), directory_(std::move(directory)) {}

  // What the directory holds now. Empty when it cannot be read or is not safe:
  // it and its files must be real (no links), belong to root or the effective
  // user and be writable by nobody else; a file that is not, or that holds
  // neither certificate nor list, counts as absent. A file holds one or more
  // of either, PEM or DER.
  //
  // They are kept between calls and read again when the directory or one of
  // its files changed. Null when memory is short. Thread-safe.
  std::shared_ptr<const TrustSet> Current();

 private:
  // What tells one state of a file from another.
  struct Stamp;
  struct Loaded;

  Loaded Load() const;

  const std::shared_ptr<const CryptoContext> context_;
  const std::string directory_;
  std::mutex mutex_;
  std::shared_ptr<const Loaded> loaded_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_TRUST_TRUST_ANCHORS_H_
