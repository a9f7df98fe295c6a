#include "platform/linux/signing/crypto_context.h"

#include <openssl/objects.h>
#include <limits>

namespace zu::platform {

std::shared_ptr<const CryptoContext> CryptoContext::Create() {
  const ScopedErrorMark mark;
  std::shared_ptr<CryptoContext> made(new CryptoContext);
  made->context_.reset(OSSL_LIB_CTX_new());
  if (!made->context_) return nullptr;
  made->provider_.reset(OSSL_PROVIDER_load(made->get(), "default"));
  if (!made->provider_) return nullptr;
  size_t index = 0;
  for (const char* name : {"SHA2-256", "SHA2-384", "SHA2-512"}) {
    DigestPtr& digest = made->digests_[index++];
    digest.reset(EVP_MD_fetch(made->get(), name, nullptr));
    if (!digest) return nullptr;
  }
  return made;
}

const EVP_MD* CryptoContext::Digest(int nid) const {
  switch (nid) {
    case NID_sha256:
      return digests_[0].get();
    case NID_sha384:
      return digests_[1].get();
    case NID_sha512:
      return digests_[2].get();
    default:
      return nullptr;
  }
}

CertificatePtr CryptoContext::TakeCertificate(
    std::span<const std::byte>& der) const {
  if (der.size() > std::numeric_limits<long>::max()) return nullptr;
  // d2i frees what it was given when it fails.
  X509* certificate = X509_new_ex(context_.get(), nullptr);
  const auto* position = reinterpret_cast<const unsigned char*>(der.data());
  const auto* const start = position;
  if (certificate == nullptr ||
      d2i_X509(&certificate, &position, static_cast<long>(der.size())) ==
          nullptr) {
    return nullptr;
  }
  der = der.subspan(static_cast<size_t>(position - start));
  return CertificatePtr(certificate);
}

}  // namespace zu::platform
