#include "platform/linux/signing/trust/certificates.h"

#include <openssl/x509v3.h>

#include "platform/linux/signing/status.h"

namespace zu::platform {
namespace {

// 112 bits: RSA from 2048 bits on, no SHA-1 below the anchor.
constexpr int kSecurityLevel = 2;
constexpr int kMaxDepth = 8;

bool NamesCodeSigning(X509& certificate) {
  // Without the extension all bits are set.
  return (X509_get_extension_flags(&certificate) & EXFLAG_XKUSAGE) != 0 &&
         (X509_get_extended_key_usage(&certificate) & XKU_CODE_SIGN) != 0;
}

// An issuer with an extended key usage issues for these usages only.
bool MayIssueForCode(X509& certificate) {
  return (X509_get_extended_key_usage(&certificate) &
          (XKU_CODE_SIGN | XKU_ANYEKU)) != 0;
}

}  // namespace

bool MaySignCode(X509& certificate) {
  return (X509_get_key_usage(&certificate) & KU_DIGITAL_SIGNATURE) != 0 &&
         NamesCodeSigning(certificate);
}

ChainResult EvaluateChain(const CryptoContext& context, X509_STORE& anchors,
                          std::span<const CertificatePtr> certificates,
                          const ChainPolicy& policy) {
  // The stack borrows; the certificates stay their owner's.
  struct FreeStack {
    void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
  };
  const std::unique_ptr<STACK_OF(X509), FreeStack> others(sk_X509_new_null());
  const StoreContextPtr evaluation(
      X509_STORE_CTX_new_ex(context.get(), nullptr));
  if (!others || !evaluation) return {kCertificateNotTrusted, {}};
  for (const CertificatePtr& certificate : certificates.subspan(1)) {
    sk_X509_push(others.get(), certificate.get());
  }
  X509* const leaf = certificates.front().get();
  if (X509_STORE_CTX_init(evaluation.get(), &anchors, leaf, others.get()) !=
      1) {
    return {kCertificateNotTrusted, {}};
  }
  X509_VERIFY_PARAM* const parameters =
      X509_STORE_CTX_get0_param(evaluation.get());
  X509_VERIFY_PARAM_set_auth_level(parameters, kSecurityLevel);
  X509_VERIFY_PARAM_set_depth(parameters, kMaxDepth);
  X509_VERIFY_PARAM_set_flags(
      parameters,
      X509_V_FLAG_PARTIAL_CHAIN |
          (policy.consider_expiration ? 0UL : X509_V_FLAG_NO_CHECK_TIME));
  if (X509_verify_cert(evaluation.get()) != 1) {
    switch (X509_STORE_CTX_get_error(evaluation.get())) {
      case X509_V_ERR_CERT_HAS_EXPIRED:
      case X509_V_ERR_CERT_NOT_YET_VALID:
        return {kCertificateExpired, {}};
      default:
        return {kCertificateNotTrusted, {}};
    }
  }

  ChainResult result;
  const STACK_OF(X509)* const chain =
      X509_STORE_CTX_get0_chain(evaluation.get());
  for (int i = 0; i < sk_X509_num(chain); ++i) {
    X509* const certificate = sk_X509_value(chain, i);
    if (i == 0 ? !MaySignCode(*certificate) : !MayIssueForCode(*certificate)) {
      return {kCertificateUsageInvalid, {}};
    }
    X509_up_ref(certificate);
    result.chain.emplace_back(certificate);
  }
  return result;
}

}  // namespace zu::platform
