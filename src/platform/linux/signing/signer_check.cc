#include "platform/linux/signing/signer_check.h"

#include <iterator>
#include <utility>

#include "platform/code_signing.h"
#include "platform/linux/signing/certificate_facts.h"
#include "platform/linux/signing/status.h"
#include "platform/linux/signing/trust/certificates.h"
#include "platform/linux/signing/trust/revocation.h"

namespace zu::platform {
namespace {

CheckResult ChainFailure(int32_t status) {
  switch (status) {
    case kCertificateExpired:
      return {status, "a certificate is not in its time"};
    case kCertificateUsageInvalid:
      return {status, "a certificate is not for signing code"};
    default:
      return {status, "the certificates lead to no root"};
  }
}

ChainResult EvaluateSigner(const CryptoContext& context,
                           const TrustSet& trusted,
                           const SignedMessage& message,
                           const SignerPolicy& policy,
                           std::optional<int64_t> time) {
  return EvaluateChain(
      context, *trusted.store, message.certificates(),
      {.consider_expiration = time.has_value() || policy.consider_expiration,
       .time = time,
       .accept_own_root = true,
       .accept_legacy_algorithms = policy.accept_legacy_algorithms});
}

// The authority's certificates, helped by the signer's: authorities leave out
// what the signature has anyway.
ChainResult EvaluateTimestamp(const CryptoContext& context,
                              const TrustSet& trusted,
                              const Timestamp& timestamp,
                              std::span<const CertificatePtr> others,
                              bool accept_legacy_algorithms) {
  std::vector<CertificatePtr> certificates;
  for (const auto& list : {std::span(timestamp.certificates), others}) {
    for (const CertificatePtr& certificate : list) {
      X509_up_ref(certificate.get());
      certificates.emplace_back(certificate.get());
    }
  }
  return EvaluateChain(context, *trusted.store, certificates,
                       {.purpose = ChainPurpose::kTimeStamping,
                        .consider_expiration = true,
                        .time = timestamp.time,
                        .accept_own_root = true,
                        .accept_legacy_algorithms = accept_legacy_algorithms});
}

bool EndInTheSame(const ChainResult& a, const ChainResult& b) {
  return !a.chain.empty() && !b.chain.empty() &&
         X509_cmp(a.chain.back().get(), b.chain.back().get()) == 0;
}

// What a message's token says. Without a token everything is absent and good.
struct TimestampCheck {
  CheckResult result = {};
  // When it counts.
  std::optional<int64_t> time = std::nullopt;
};

TimestampCheck CheckTimestamp(
    const std::shared_ptr<const CryptoContext>& context,
    const TrustSet& trusted, const SignedMessage& message,
    const SignerPolicy& policy) {
  if (!message.timestamp_token()) return {};
  const std::optional<Timestamp> timestamp = VerifyTimestampToken(
      context, *message.timestamp_token(), message.signature_value());
  if (!timestamp) {
    return {{kCodeSigningSignatureFailed, "the timestamp is not valid"}};
  }
  const ChainResult chain =
      EvaluateTimestamp(*context, trusted, *timestamp, message.certificates(),
                        policy.accept_legacy_algorithms);
  if (chain.status != kCodeSigningSuccess) {
    return {{chain.status, "the timestamp's certificates are not good"}};
  }
  if (!chain.anchor_trusted) {
    SignerPolicy at_any_time = policy;
    at_any_time.consider_expiration = false;
    const ChainResult signer =
        EvaluateSigner(*context, trusted, message, at_any_time, std::nullopt);
    if (!EndInTheSame(chain, signer)) return {};
  }
  return {.time = timestamp->time};
}

}  // namespace

std::optional<int64_t> TimestampOf(
    const std::shared_ptr<const CryptoContext>& context,
    const TrustSet& trusted, const SignedMessage& message) {
  return CheckTimestamp(context, trusted, message,
                        {.accept_legacy_algorithms = true})
      .time;
}

CheckResult CheckSigner(const std::shared_ptr<const CryptoContext>& context,
                        const TrustSet& trusted, const SignedMessage& message,
                        const SignerPolicy& policy, Signer& signer) {
  if (!message.VerifyAttributes()) {
    return {kCodeSigningSignatureFailed,
            "the signature was not made by its certificate"};
  }
  const TimestampCheck timestamp =
      CheckTimestamp(context, trusted, message, policy);
  if (!timestamp.result.good()) return timestamp.result;
  ChainResult chain =
      EvaluateSigner(*context, trusted, message, policy, timestamp.time);
  if (chain.status != kCodeSigningSuccess) return ChainFailure(chain.status);
  if (policy.revocation_deadline) {
    const bool answers_count =
        chain.anchor_trusted || IsRootOfApple(FactsOf(*chain.chain.back()));
    if (IsRevoked(*context, chain.chain, trusted.lists,
                  answers_count ? *policy.revocation_deadline : Deadline())) {
      return {kCertificateRevoked, "a certificate has been revoked"};
    }
  }
  signer.anchor_trusted = chain.anchor_trusted;
  signer.chain = std::move(chain.chain);
  return {};
}

}  // namespace zu::platform
