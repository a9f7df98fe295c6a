#include "platform/linux/signing/signer/signing_identity.h"

#include <openssl/pem.h>
#include <utility>

namespace zu::platform {
namespace {

BioPtr OpenText(std::string_view text) {
  return BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

}  // namespace

std::string CryptoError(const char* what) {
  const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
  return std::string(what) + ": " +
         (reason != nullptr ? reason : "libcrypto gives no reason");
}

std::optional<SigningIdentity> SigningIdentity::FromPem(
    std::string_view key, std::string_view certificates, std::string& error) {
  const ScopedErrorMark mark;
  SigningIdentity identity;
  identity.context = CryptoContext::Create();
  if (!identity.context) {
    error = "libcrypto cannot be initialized";
    return std::nullopt;
  }
  const BioPtr key_text = OpenText(key);
  identity.key.reset(
      PEM_read_bio_PrivateKey_ex(key_text.get(), nullptr, nullptr, nullptr,
                                 identity.context->get(), nullptr));
  if (!identity.key) {
    error = CryptoError("the private key cannot be read");
    return std::nullopt;
  }
  const BioPtr certificate_text = OpenText(certificates);
  identity.chain.reset(sk_X509_new_null());
  for (;;) {
    X509* certificate = X509_new_ex(identity.context->get(), nullptr);
    if (PEM_read_bio_X509(certificate_text.get(), &certificate, nullptr,
                          nullptr) == nullptr) {
      X509_free(certificate);
      break;
    }
    if (!identity.leaf) {
      identity.leaf.reset(certificate);
    } else {
      sk_X509_push(identity.chain.get(), certificate);
    }
  }
  if (!identity.leaf ||
      ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE) {
    error = CryptoError("the certificates cannot be read");
    return std::nullopt;
  }
  if (X509_check_private_key(identity.leaf.get(), identity.key.get()) != 1) {
    error = "the certificate is not the private key's";
    return std::nullopt;
  }
  return identity;
}

}  // namespace zu::platform
