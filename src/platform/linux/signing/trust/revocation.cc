#include "platform/linux/signing/trust/revocation.h"

#include <openssl/ocsp.h>
#include <openssl/x509v3.h>
#include <optional>
#include <string>
#include <utility>

namespace zu::platform {
namespace {

// Of one certificate. A certificate can name any number of them.
constexpr size_t kMaxSources = 4;
// Clocks differ.
constexpr long kClockLeeway_s = 300;
// An answer that does not say until when it holds.
constexpr long kMaxAnswerAge_s = 24 * 3600;

using OcspRequestPtr = OpenSslPtr<OCSP_REQUEST, &OCSP_REQUEST_free>;
using OcspResponsePtr = OpenSslPtr<OCSP_RESPONSE, &OCSP_RESPONSE_free>;
using OcspAnswerPtr = OpenSslPtr<OCSP_BASICRESP, &OCSP_BASICRESP_free>;
using OcspIdPtr = OpenSslPtr<OCSP_CERTID, &OCSP_CERTID_free>;
using DistributionPointsPtr =
    OpenSslPtr<CRL_DIST_POINTS, &CRL_DIST_POINTS_free>;
using UrlStackPtr = OpenSslPtr<STACK_OF(OPENSSL_STRING), &X509_email_free>;

// The lists stay their owner's.
inline void FreeListStack(STACK_OF(X509_CRL) * lists) {
  sk_X509_CRL_free(lists);
}
using ListStackPtr = OpenSslPtr<STACK_OF(X509_CRL), &FreeListStack>;

// libcrypto's OCSP functions take no context: they use the thread's default
// one, which is ours for as long as this lives.
class ScopedDefaultContext {
 public:
  explicit ScopedDefaultContext(const CryptoContext& context)
      : previous_(OSSL_LIB_CTX_set0_default(context.get())) {}
  ~ScopedDefaultContext() { OSSL_LIB_CTX_set0_default(previous_); }
  ScopedDefaultContext(const ScopedDefaultContext&) = delete;
  ScopedDefaultContext& operator=(const ScopedDefaultContext&) = delete;

 private:
  OSSL_LIB_CTX* const previous_;
};

enum class Finding { kUnknown, kGood, kRevoked };

struct Source {
  enum class Kind { kResponder, kList } kind;
  std::string url;
};

std::vector<Source> SourcesOf(X509& certificate) {
  std::vector<Source> sources;
  const auto add = [&](Source::Kind kind, const char* url) {
    if (url != nullptr && ParseHttpUrl(url)) sources.push_back({kind, url});
  };
  const UrlStackPtr responders(X509_get1_ocsp(&certificate));
  for (int i = 0; i < sk_OPENSSL_STRING_num(responders.get()); ++i) {
    if (sources.size() == kMaxSources) break;
    add(Source::Kind::kResponder, sk_OPENSSL_STRING_value(responders.get(), i));
  }
  const size_t end = sources.size() + kMaxSources;
  const DistributionPointsPtr points(
      static_cast<CRL_DIST_POINTS*>(X509_get_ext_d2i(
          &certificate, NID_crl_distribution_points, nullptr, nullptr)));
  for (int i = 0; i < sk_DIST_POINT_num(points.get()); ++i) {
    const DIST_POINT* const point = sk_DIST_POINT_value(points.get(), i);
    // The list of another issuer, or of some reasons only, is no answer.
    if (point->CRLissuer != nullptr || point->reasons != nullptr ||
        point->distpoint == nullptr || point->distpoint->type != 0) {
      continue;
    }
    const GENERAL_NAMES* const names = point->distpoint->name.fullname;
    for (int j = 0; j < sk_GENERAL_NAME_num(names); ++j) {
      const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names, j);
      if (name->type != GEN_URI || sources.size() == end) continue;
      const ASN1_IA5STRING* const uri = name->d.uniformResourceIdentifier;
      const std::string url(
          reinterpret_cast<const char*>(ASN1_STRING_get0_data(uri)),
          static_cast<size_t>(ASN1_STRING_length(uri)));
      if (ParseHttpUrl(url)) sources.push_back({Source::Kind::kList, url});
    }
  }
  return sources;
}

// The chain has been judged already, and by other rules.
int TolerateWhatWasJudged(int good, X509_STORE_CTX* evaluation) {
  switch (X509_STORE_CTX_get_error(evaluation)) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CERT_NOT_YET_VALID:
    case X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION:
      return 1;
    default:
      return good;
  }
}

// Whoever is on a list stays revoked when the list expires.
int TolerateOldLists(int good, X509_STORE_CTX* evaluation) {
  return X509_STORE_CTX_get_error(evaluation) == X509_V_ERR_CRL_HAS_EXPIRED
             ? 1
             : TolerateWhatWasJudged(good, evaluation);
}

// One certificate about which to ask.
class Question {
 public:
  Question(const CryptoContext& context, X509* certificate, X509* issuer)
      : context_(context),
        certificate_(certificate),
        issuer_(issuer),
        sources_(SourcesOf(*certificate)),
        issuer_only_(X509_STORE_new()) {
    if (issuer_only_) {
      X509_STORE_add_cert(issuer_only_.get(), issuer);
      X509_STORE_set_flags(issuer_only_.get(), X509_V_FLAG_PARTIAL_CHAIN);
    }
  }

  // Lists of ours: one that has expired can still revoke, but no longer tells
  // that a certificate is good.
  Finding AskLists(std::span<const CrlPtr> lists) const;
  bool has_sources() const { return !sources_.empty(); }
  Finding AskNetwork(Deadline deadline) const;

 private:
  Finding Evaluate(std::span<const CrlPtr> lists,
                   X509_STORE_CTX_verify_cb tolerate) const;
  Finding AskResponder(const std::string& url, Deadline deadline) const;
  Finding AskListAt(const std::string& url, Deadline deadline) const;

  const CryptoContext& context_;
  X509* certificate_;
  X509* issuer_;
  std::vector<Source> sources_;
  StorePtr issuer_only_;
};

// libcrypto's own rules for lists: the issuer's signature and right to sign
// lists, the list's time and scope, no delta and no indirect lists, no unknown
// critical extensions, and removals from a list.
Finding Question::Evaluate(std::span<const CrlPtr> lists,
                           X509_STORE_CTX_verify_cb tolerate) const {
  if (lists.empty()) return Finding::kUnknown;
  const ListStackPtr stack(sk_X509_CRL_new_null());
  const StoreContextPtr evaluation(
      X509_STORE_CTX_new_ex(context_.get(), nullptr));
  if (!issuer_only_ || !stack || !evaluation ||
      X509_STORE_CTX_init(evaluation.get(), issuer_only_.get(), certificate_,
                          nullptr) != 1) {
    return Finding::kUnknown;
  }
  for (const CrlPtr& list : lists) sk_X509_CRL_push(stack.get(), list.get());
  X509_STORE_CTX_set0_crls(evaluation.get(), stack.get());
  X509_STORE_CTX_set_flags(evaluation.get(), X509_V_FLAG_CRL_CHECK);
  X509_STORE_CTX_set_verify_cb(evaluation.get(), tolerate);
  if (X509_verify_cert(evaluation.get()) == 1) return Finding::kGood;
  return X509_STORE_CTX_get_error(evaluation.get()) == X509_V_ERR_CERT_REVOKED
             ? Finding::kRevoked
             : Finding::kUnknown;
}

Finding Question::AskLists(std::span<const CrlPtr> lists) const {
  const Finding finding = Evaluate(lists, &TolerateWhatWasJudged);
  if (finding != Finding::kUnknown) return finding;
  return Evaluate(lists, &TolerateOldLists) == Finding::kRevoked
             ? Finding::kRevoked
             : Finding::kUnknown;
}

Finding Question::AskListAt(const std::string& url, Deadline deadline) const {
  std::string error;
  const auto body = ExchangeHttp({.url = url}, deadline, error);
  if (!body) return Finding::kUnknown;
  std::span<const std::byte> der(*body);
  const CrlPtr list = context_.TakeCrl(der);
  return list ? Evaluate(std::span(&list, 1), &TolerateWhatWasJudged)
              : Finding::kUnknown;
}

Finding Question::AskResponder(const std::string& url,
                               Deadline deadline) const {
  const OcspIdPtr id(OCSP_cert_to_id(EVP_sha1(), certificate_, issuer_));
  const OcspRequestPtr request(OCSP_REQUEST_new());
  OcspIdPtr asked(id ? OCSP_CERTID_dup(id.get()) : nullptr);
  if (!issuer_only_ || !request || !asked ||
      OCSP_request_add0_id(request.get(), asked.get()) == nullptr) {
    return Finding::kUnknown;
  }
  std::ignore = asked.release();  // The request's now.
  const int size = i2d_OCSP_REQUEST(request.get(), nullptr);
  if (size <= 0) return Finding::kUnknown;
  std::vector<std::byte> der(static_cast<size_t>(size));
  auto* output = reinterpret_cast<unsigned char*>(der.data());
  i2d_OCSP_REQUEST(request.get(), &output);

  std::string error;
  const auto body = ExchangeHttp(
      {.url = url, .content_type = "application/ocsp-request", .body = der},
      deadline, error);
  if (!body) return Finding::kUnknown;
  const auto* input = reinterpret_cast<const unsigned char*>(body->data());
  const OcspResponsePtr response(
      d2i_OCSP_RESPONSE(nullptr, &input, static_cast<long>(body->size())));
  if (!response ||
      OCSP_response_status(response.get()) != OCSP_RESPONSE_STATUS_SUCCESSFUL) {
    return Finding::kUnknown;
  }
  const OcspAnswerPtr answer(OCSP_response_get1_basic(response.get()));
  const CertificateStackPtr issuer(sk_X509_new_null());
  if (!answer || !issuer ||
      X509_add_cert(issuer.get(), issuer_, X509_ADD_FLAG_UP_REF) != 1) {
    return Finding::kUnknown;
  }
  // Signed by the issuer itself, or by one whom it names for this.
  if (OCSP_basic_verify(answer.get(), issuer.get(), issuer_only_.get(),
                        OCSP_TRUSTOTHER | OCSP_NOEXPLICIT) != 1) {
    return Finding::kUnknown;
  }
  int status = V_OCSP_CERTSTATUS_UNKNOWN;
  ASN1_GENERALIZEDTIME* made = nullptr;
  ASN1_GENERALIZEDTIME* next = nullptr;
  if (OCSP_resp_find_status(answer.get(), id.get(), &status, nullptr, nullptr,
                            &made, &next) != 1 ||
      OCSP_check_validity(made, next, kClockLeeway_s,
                          next == nullptr ? kMaxAnswerAge_s : -1) != 1) {
    return Finding::kUnknown;
  }
  switch (status) {
    case V_OCSP_CERTSTATUS_GOOD:
      return Finding::kGood;
    case V_OCSP_CERTSTATUS_REVOKED:
      return Finding::kRevoked;
    default:
      return Finding::kUnknown;
  }
}

Finding Question::AskNetwork(Deadline deadline) const {
  size_t left = sources_.size();
  for (const Source& source : sources_) {
    const Deadline part = PartOf(deadline, left--);
    const Finding finding = source.kind == Source::Kind::kResponder
                                ? AskResponder(source.url, part)
                                : AskListAt(source.url, part);
    if (finding != Finding::kUnknown) return finding;
  }
  return Finding::kUnknown;
}

}  // namespace

bool IsRevoked(const CryptoContext& context,
               std::span<const CertificatePtr> chain,
               std::span<const CrlPtr> lists, Deadline deadline) {
  const ScopedErrorMark mark;
  const ScopedDefaultContext scope(context);
  // What costs no time comes first, for all of them.
  std::vector<Question> open;
  for (size_t i = 0; i + 1 < chain.size(); ++i) {
    Question question(context, chain[i].get(), chain[i + 1].get());
    switch (question.AskLists(lists)) {
      case Finding::kRevoked:
        return true;
      case Finding::kUnknown:
        if (question.has_sources()) open.push_back(std::move(question));
        break;
      case Finding::kGood:
        break;
    }
  }
  size_t left = open.size();
  for (const Question& question : open) {
    if (question.AskNetwork(PartOf(deadline, left--)) == Finding::kRevoked) {
      return true;
    }
  }
  return false;
}

}  // namespace zu::platform
