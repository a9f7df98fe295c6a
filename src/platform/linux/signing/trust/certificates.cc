#include "platform/linux/signing/trust/certificates.h"

#include <openssl/x509v3.h>
#include <array>
#include <string_view>

#include "platform/linux/signing/status.h"

namespace zu::platform {
namespace {

// 112 bits: RSA from 2048 bits on, no SHA-1 below the anchor.
constexpr int kSecurityLevel = 2;
// RSA from 1024 bits on.
constexpr int kLegacySecurityBits = 80;
constexpr int kMaxDepth = 8;

struct Usage {
  uint32_t extended_bit;  // The leaf must name it: "any" does not count.
  uint32_t leaf_bits;     // The leaf's key usage, if any, has one of these.
};
constexpr Usage kCodeSigningUsage{XKU_CODE_SIGN, KU_DIGITAL_SIGNATURE};
constexpr Usage kTimeStampingUsage{XKU_TIMESTAMP,
                                   KU_DIGITAL_SIGNATURE | KU_NON_REPUDIATION};

// Without the extensions all bits are set.
bool IsLeafFor(const Usage& usage, X509& certificate) {
  return (X509_get_key_usage(&certificate) & usage.leaf_bits) != 0 &&
         (X509_get_extension_flags(&certificate) & EXFLAG_XKUSAGE) != 0 &&
         (X509_get_extended_key_usage(&certificate) & usage.extended_bit) != 0;
}

// An issuer with an extended key usage issues for these usages only.
bool MayIssueFor(const Usage& usage, X509& certificate) {
  return (X509_get_extended_key_usage(&certificate) &
          (usage.extended_bit | XKU_ANYEKU)) != 0;
}

bool IsFitFor(ChainPurpose purpose, std::span<const CertificatePtr> chain) {
  if (purpose == ChainPurpose::kAny) return true;
  const Usage& usage = purpose == ChainPurpose::kTimeStamping
                           ? kTimeStampingUsage
                           : kCodeSigningUsage;
  if (!IsLeafFor(usage, *chain.front())) return false;
  for (const CertificatePtr& issuer : chain.subspan(1)) {
    if (!MayIssueFor(usage, *issuer)) return false;
  }
  return true;
}

// For chains that libcrypto built without a security level.
bool IsStrongEnoughForLegacy(std::span<const CertificatePtr> chain) {
  for (const CertificatePtr& certificate : chain) {
    const EVP_PKEY* const key = X509_get0_pubkey(certificate.get());
    if (key == nullptr ||
        EVP_PKEY_get_security_bits(key) < kLegacySecurityBits) {
      return false;
    }
    if (certificate == chain.back()) return true;  // It vouches for itself.
    int digest = NID_undef;
    if (X509_get_signature_info(certificate.get(), &digest, nullptr, nullptr,
                                nullptr) != 1 ||
        digest == NID_md5 || digest == NID_md5_sha1 || digest == NID_md4 ||
        digest == NID_md2) {
      return false;
    }
  }
  return true;
}

bool IsMarker(const X509_EXTENSION& extension) {
  constexpr std::string_view kArc = "1.2.840.113635.100.6.";
  std::array<char, 64> text{};  // The end of a longer name does not matter.
  OBJ_obj2txt(
      text.data(), text.size(),
      X509_EXTENSION_get_object(const_cast<X509_EXTENSION*>(&extension)), 1);
  return std::string_view(text.data()).starts_with(kArc);
}

int AcceptMarkers(int good, X509_STORE_CTX* evaluation) {
  if (X509_STORE_CTX_get_error(evaluation) !=
      X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION) {
    return good;
  }
  const X509* const certificate = X509_STORE_CTX_get_current_cert(evaluation);
  for (int i = 0; i < X509_get_ext_count(certificate); ++i) {
    X509_EXTENSION* const extension = X509_get_ext(certificate, i);
    if (X509_EXTENSION_get_critical(extension) != 0 &&
        X509_supported_extension(extension) == 0 && !IsMarker(*extension)) {
      return good;
    }
  }
  X509_STORE_CTX_set_error(evaluation, X509_V_OK);
  return 1;
}

// The stack borrows; the certificates stay their owner's.
void FreeBorrowed(STACK_OF(X509) * stack) { sk_X509_free(stack); }
using BorrowedStackPtr = OpenSslPtr<STACK_OF(X509), &FreeBorrowed>;

struct BuiltChain {
  int error = X509_V_ERR_OUT_OF_MEM;  // libcrypto's; X509_V_OK with a chain.
  std::vector<CertificatePtr> chain = {};
};

BuiltChain BuildChain(const CryptoContext& context, X509_STORE& ends,
                      std::span<const CertificatePtr> certificates,
                      const ChainPolicy& policy) {
  const BorrowedStackPtr others(sk_X509_new_null());
  const StoreContextPtr evaluation(
      X509_STORE_CTX_new_ex(context.get(), nullptr));
  if (!others || !evaluation) return {};
  for (const CertificatePtr& certificate : certificates.subspan(1)) {
    sk_X509_push(others.get(), certificate.get());
  }
  if (X509_STORE_CTX_init(evaluation.get(), &ends, certificates.front().get(),
                          others.get()) != 1) {
    return {};
  }
  X509_STORE_CTX_set_verify_cb(evaluation.get(), &AcceptMarkers);
  X509_VERIFY_PARAM* const parameters =
      X509_STORE_CTX_get0_param(evaluation.get());
  X509_VERIFY_PARAM_set_auth_level(
      parameters, policy.accept_legacy_algorithms ? 0 : kSecurityLevel);
  X509_VERIFY_PARAM_set_depth(parameters, kMaxDepth);
  X509_VERIFY_PARAM_set_flags(parameters, X509_V_FLAG_PARTIAL_CHAIN);
  if (!policy.consider_expiration) {
    X509_VERIFY_PARAM_set_flags(parameters, X509_V_FLAG_NO_CHECK_TIME);
  } else if (policy.time) {
    X509_VERIFY_PARAM_set_time(parameters, *policy.time);
  }
  if (X509_verify_cert(evaluation.get()) != 1) {
    return {X509_STORE_CTX_get_error(evaluation.get())};
  }
  BuiltChain built{X509_V_OK};
  const STACK_OF(X509)* const chain =
      X509_STORE_CTX_get0_chain(evaluation.get());
  for (int i = 0; i < sk_X509_num(chain); ++i) {
    X509* const certificate = sk_X509_value(chain, i);
    X509_up_ref(certificate);
    built.chain.emplace_back(certificate);
  }
  return built;
}

// The certificates lead to none of the ends: nothing is wrong with them.
bool LeadsNowhere(int error) {
  switch (error) {
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_CERT_UNTRUSTED:
      return true;
    default:
      return false;
  }
}

StorePtr SelfSigned(std::span<const CertificatePtr> certificates) {
  StorePtr store(X509_STORE_new());
  for (const CertificatePtr& certificate : certificates) {
    if (store && X509_self_signed(certificate.get(), 1) == 1) {
      X509_STORE_add_cert(store.get(), certificate.get());
    }
  }
  return store;
}

// The most specific value that the subject has of this kind, in UTF-8.
std::optional<std::string> LastAttribute(const X509& certificate, int kind) {
  const X509_NAME* const name = X509_get_subject_name(&certificate);
  int last = -1;
  for (int i = -1; (i = X509_NAME_get_index_by_NID(name, kind, i)) >= 0;) {
    last = i;
  }
  if (last < 0) return std::nullopt;
  return Utf8Of(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, last)));
}

}  // namespace

bool MaySignCode(X509& certificate) {
  return IsLeafFor(kCodeSigningUsage, certificate);
}

ChainResult EvaluateChain(const CryptoContext& context, X509_STORE& anchors,
                          std::span<const CertificatePtr> certificates,
                          const ChainPolicy& policy) {
  const ScopedErrorMark mark;
  BuiltChain built = BuildChain(context, anchors, certificates, policy);
  const bool anchor_trusted = built.error == X509_V_OK;
  if (policy.accept_own_root && LeadsNowhere(built.error)) {
    if (const StorePtr roots = SelfSigned(certificates)) {
      built = BuildChain(context, *roots, certificates, policy);
    }
  }
  switch (built.error) {
    case X509_V_OK:
      break;
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return {kCertificateExpired};
    default:
      return {kCertificateNotTrusted};
  }
  if (policy.accept_legacy_algorithms &&
      !IsStrongEnoughForLegacy(built.chain)) {
    return {kCertificateNotTrusted};
  }
  if (!IsFitFor(policy.purpose, built.chain)) return {kCertificateUsageInvalid};
  return {0, std::move(built.chain), anchor_trusted};
}

std::optional<std::string> SubjectSummary(const X509& certificate) {
  for (const int kind : {NID_commonName, NID_organizationalUnitName,
                         NID_organizationName, NID_pkcs9_emailAddress}) {
    std::optional<std::string> summary = LastAttribute(certificate, kind);
    if (!summary) continue;
    if (kind == NID_commonName) {
      if (const auto description =
              LastAttribute(certificate, NID_description)) {
        *summary += " (" + *description + ")";
      }
    }
    return summary;
  }
  return std::nullopt;
}

}  // namespace zu::platform
