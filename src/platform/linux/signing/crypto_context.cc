#include "platform/linux/signing/crypto_context.h"

#include <openssl/objects.h>
#include <algorithm>
#include <limits>

namespace zu::platform {
namespace {

// Reads into `object`, which is bound to a context.
template <typename Ptr>
Ptr Take(typename Ptr::pointer object,
         typename Ptr::pointer (*decode)(typename Ptr::pointer*,
                                         const unsigned char**, long),
         std::span<const std::byte>& der) {
  if (object == nullptr) return nullptr;
  const auto* position = reinterpret_cast<const unsigned char*>(der.data());
  const auto* const start = position;
  const auto size = static_cast<long>(
      std::min<size_t>(der.size(), std::numeric_limits<long>::max()));
  // It is freed and gone when this fails.
  if (decode(&object, &position, size) == nullptr) {
    return nullptr;
  }
  der = der.subspan(static_cast<size_t>(position - start));
  return Ptr(object);
}

}  // namespace

std::shared_ptr<const CryptoContext> CryptoContext::Create() {
  const ScopedErrorMark mark;
  std::shared_ptr<CryptoContext> made(new CryptoContext);
  made->context_.reset(OSSL_LIB_CTX_new());
  if (!made->context_) return nullptr;
  made->provider_.reset(OSSL_PROVIDER_load(made->get(), "default"));
  if (!made->provider_) return nullptr;
  size_t index = 0;
  for (const char* name : {"SHA1", "SHA2-256", "SHA2-384", "SHA2-512"}) {
    DigestPtr& digest = made->digests_[index++];
    digest.reset(EVP_MD_fetch(made->get(), name, nullptr));
    if (!digest) return nullptr;
  }
  made->message_cipher_.reset(
      EVP_CIPHER_fetch(made->get(), "AES-256-CBC", nullptr));
  if (!made->message_cipher_) return nullptr;
  return made;
}

const EVP_MD* CryptoContext::Digest(int nid) const {
  switch (nid) {
    case NID_sha1:
      return digests_[0].get();
    case NID_sha256:
      return digests_[1].get();
    case NID_sha384:
      return digests_[2].get();
    case NID_sha512:
      return digests_[3].get();
    default:
      return nullptr;
  }
}

CertificatePtr CryptoContext::TakeCertificate(
    std::span<const std::byte>& der) const {
  return Take<CertificatePtr>(X509_new_ex(get(), nullptr), &d2i_X509, der);
}

CrlPtr CryptoContext::TakeCrl(std::span<const std::byte>& der) const {
  return Take<CrlPtr>(X509_CRL_new_ex(get(), nullptr), &d2i_X509_CRL, der);
}

std::optional<std::string> Utf8Of(const ASN1_STRING* text) {
  unsigned char* utf8 = nullptr;
  const int length = ASN1_STRING_to_UTF8(&utf8, text);
  if (length < 0) return std::nullopt;
  std::optional<std::string> value(std::in_place,
                                   reinterpret_cast<const char*>(utf8),
                                   static_cast<size_t>(length));
  OPENSSL_free(utf8);
  return value;
}

std::vector<std::byte> DigestOf(std::span<const std::byte> bytes,
                                const EVP_MD& algorithm) {
  const ScopedErrorMark mark;
  std::vector<std::byte> digest(EVP_MAX_MD_SIZE);
  unsigned size = 0;
  if (EVP_Digest(bytes.data(), bytes.size(),
                 reinterpret_cast<unsigned char*>(digest.data()), &size,
                 &algorithm, nullptr) != 1) {
    size = 0;
  }
  digest.resize(size);
  return digest;
}

}  // namespace zu::platform
