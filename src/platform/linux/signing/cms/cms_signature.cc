#include "platform/linux/signing/cms/cms_signature.h"

#include <openssl/objects.h>
#include <openssl/x509v3.h>
#include <ctime>
#include <utility>

namespace zu::platform {
namespace {

// More than any real chain has; what a hostile message can make us parse and
// compare stays bounded.
constexpr int kMaxCertificates = 16;

// The value of a signed attribute that must be there once, with one value.
const void* SignedValue(const CMS_SignerInfo* signer, int nid, int type) {
  constexpr int kExactlyOnce = -3;
  return CMS_signed_get0_data_by_OBJ(signer, OBJ_nid2obj(nid), kExactlyOnce,
                                     type);
}

std::span<const std::byte> BytesOf(const ASN1_STRING* string) {
  return {reinterpret_cast<const std::byte*>(ASN1_STRING_get0_data(string)),
          static_cast<size_t>(ASN1_STRING_length(string))};
}

}  // namespace

CmsSignature::ParseResult CmsSignature::Parse(
    std::shared_ptr<const CryptoContext> context,
    std::span<const std::byte> der) {
  context_ = std::move(context);
  if (der.size() > INT32_MAX) return ParseResult::kMalformed;
  // d2i frees what it was given when it fails.
  CMS_ContentInfo* message = CMS_ContentInfo_new_ex(context_->get(), nullptr);
  const auto* position = reinterpret_cast<const unsigned char*>(der.data());
  const auto* const end = position + der.size();
  if (message == nullptr ||
      d2i_CMS_ContentInfo(&message, &position, static_cast<long>(der.size())) ==
          nullptr) {
    return ParseResult::kMalformed;
  }
  message_.reset(message);
  if (position != end) return ParseResult::kMalformed;

  if (OBJ_obj2nid(CMS_get0_type(message)) != NID_pkcs7_signed ||
      OBJ_obj2nid(CMS_get0_eContentType(message)) != NID_pkcs7_data ||
      CMS_is_detached(message) != 1) {
    return ParseResult::kUnsupported;
  }
  STACK_OF(CMS_SignerInfo)* const signers = CMS_get0_SignerInfos(message);
  if (sk_CMS_SignerInfo_num(signers) != 1) return ParseResult::kUnsupported;
  signer_ = sk_CMS_SignerInfo_value(signers, 0);

  X509_ALGOR* algorithm = nullptr;
  CMS_SignerInfo_get0_algs(signer_, nullptr, nullptr, &algorithm, nullptr);
  digest_ = context_->Digest(OBJ_obj2nid(algorithm->algorithm));
  if (digest_ == nullptr || CMS_signed_get_attr_count(signer_) <= 0) {
    return ParseResult::kUnsupported;
  }
  const auto* const content_type = static_cast<const ASN1_OBJECT*>(
      SignedValue(signer_, NID_pkcs9_contentType, V_ASN1_OBJECT));
  content_digest_ = static_cast<const ASN1_OCTET_STRING*>(
      SignedValue(signer_, NID_pkcs9_messageDigest, V_ASN1_OCTET_STRING));
  if (OBJ_obj2nid(content_type) != NID_pkcs7_data ||
      content_digest_ == nullptr) {
    return ParseResult::kMalformed;
  }
  if (const auto* const identifier = static_cast<const ASN1_OCTET_STRING*>(
          SignedValue(signer_, NID_id_smime_aa_contentIdentifier,
                      V_ASN1_OCTET_STRING))) {
    const std::span<const std::byte> bytes = BytesOf(identifier);
    identifier_.emplace(reinterpret_cast<const char*>(bytes.data()),
                        bytes.size());
  }
  return TakeCertificates() ? ParseResult::kOk : ParseResult::kMalformed;
}

bool CmsSignature::TakeCertificates() {
  const CertificateStackPtr stack(CMS_get1_certs(message_.get()));
  if (sk_X509_num(stack.get()) > kMaxCertificates) return false;
  // The next of the chain is the one that `belongs`, until there is none.
  const auto take = [&](auto belongs) {
    for (int i = 0; i < sk_X509_num(stack.get()); ++i) {
      if (belongs(sk_X509_value(stack.get(), i))) {
        certificates_.emplace_back(sk_X509_delete(stack.get(), i));
        return true;
      }
    }
    return false;
  };
  if (!take([this](X509* candidate) {
        return CMS_SignerInfo_cert_cmp(signer_, candidate) == 0;
      })) {
    return false;
  }
  CMS_SignerInfo_set1_signer_cert(signer_, leaf());
  while (take([this](X509* candidate) {
    return X509_check_issued(candidate, certificates_.back().get()) ==
           X509_V_OK;
  })) {
  }
  while (take([](X509*) { return true; })) {
  }
  return true;
}

bool CmsSignature::VerifySignature() const {
  return CMS_SignerInfo_verify(signer_) == 1;
}

std::span<const std::byte> CmsSignature::content_digest() const {
  return BytesOf(content_digest_);
}

std::optional<int64_t> CmsSignature::signing_time() const {
  // A Time is one of two types.
  for (const int type : {V_ASN1_UTCTIME, V_ASN1_GENERALIZEDTIME}) {
    const auto* const time = static_cast<const ASN1_TIME*>(
        SignedValue(signer_, NID_pkcs9_signingTime, type));
    std::tm fields{};
    if (time != nullptr && ASN1_TIME_to_tm(time, &fields) == 1) {
      return ::timegm(&fields);
    }
  }
  return std::nullopt;
}

}  // namespace zu::platform
