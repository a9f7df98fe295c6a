// Sole ownership of libcrypto's objects, and its error queue kept clean.
#ifndef ZU_PLATFORM_LINUX_SIGNING_OPENSSL_PTR_H_
#define ZU_PLATFORM_LINUX_SIGNING_OPENSSL_PTR_H_

#include <memory>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <openssl/x509.h>

namespace zu::platform {

template <auto kFree>
struct OpenSslDeleter {
  template <typename T>
  void operator()(T* object) const noexcept {
    kFree(object);
  }
};
template <typename T, auto kFree>
using OpenSslPtr = std::unique_ptr<T, OpenSslDeleter<kFree>>;

inline void FreeCertificates(STACK_OF(X509) * certificates) {
  sk_X509_pop_free(certificates, X509_free);
}

using BioPtr = OpenSslPtr<BIO, &BIO_free_all>;
using CmsPtr = OpenSslPtr<CMS_ContentInfo, &CMS_ContentInfo_free>;
using CertificatePtr = OpenSslPtr<X509, &X509_free>;
using CertificateStackPtr = OpenSslPtr<STACK_OF(X509), &FreeCertificates>;
using CrlPtr = OpenSslPtr<X509_CRL, &X509_CRL_free>;
using CipherContextPtr = OpenSslPtr<EVP_CIPHER_CTX, &EVP_CIPHER_CTX_free>;
using CipherPtr = OpenSslPtr<EVP_CIPHER, &EVP_CIPHER_free>;
using DigestPtr = OpenSslPtr<EVP_MD, &EVP_MD_free>;
using DigestContextPtr = OpenSslPtr<EVP_MD_CTX, &EVP_MD_CTX_free>;
using KeyContextPtr = OpenSslPtr<EVP_PKEY_CTX, &EVP_PKEY_CTX_free>;
using KeyPtr = OpenSslPtr<EVP_PKEY, &EVP_PKEY_free>;
using LibraryContextPtr = OpenSslPtr<OSSL_LIB_CTX, &OSSL_LIB_CTX_free>;
using ObjectPtr = OpenSslPtr<ASN1_OBJECT, &ASN1_OBJECT_free>;
using ProviderPtr = OpenSslPtr<OSSL_PROVIDER, &OSSL_PROVIDER_unload>;
using StorePtr = OpenSslPtr<X509_STORE, &X509_STORE_free>;
using StoreContextPtr = OpenSslPtr<X509_STORE_CTX, &X509_STORE_CTX_free>;

// Takes away, at the end of a scope, what the scope's calls left in the
// thread's error queue: the queue is the host's, who reads it after its own
// calls.
class ScopedErrorMark {
 public:
  ScopedErrorMark() { ERR_set_mark(); }
  ~ScopedErrorMark() { ERR_pop_to_mark(); }
  ScopedErrorMark(const ScopedErrorMark&) = delete;
  ScopedErrorMark& operator=(const ScopedErrorMark&) = delete;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_OPENSSL_PTR_H_
