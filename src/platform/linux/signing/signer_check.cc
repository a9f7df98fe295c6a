#include "platform/linux/signing/signer_check.h"

#include <iterator>
#include <utility>

#include "platform/code_signing.h"
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

}  // namespace

std::optional<Timestamp> TimestampOf(
    const std::shared_ptr<const CryptoContext>& context,
    const SignedMessage& message) {
  if (!message.timestamp_token()) return std::nullopt;
  return VerifyTimestampToken(context, *message.timestamp_token(),
                              message.signature_value());
}

CheckResult CheckSigner(const std::shared_ptr<const CryptoContext>& context,
                        const TrustSet& trusted, const SignedMessage& message,
                        const SignerPolicy& policy, Signer& signer) {
  if (!message.VerifyAttributes()) {
    return {kCodeSigningSignatureFailed,
            "the signature was not made by its certificate"};
  }
  ChainPolicy chain_policy{
      .consider_expiration = policy.consider_expiration,
      .accept_own_root = true,
      .accept_legacy_algorithms = policy.accept_legacy_algorithms};
  bool timestamp_is_anchored = true;
  if (message.timestamp_token()) {
    const std::optional<Timestamp> timestamp = TimestampOf(context, message);
    if (!timestamp) {
      return {kCodeSigningSignatureFailed, "the timestamp is not valid"};
    }
    const ChainResult chain =
        EvaluateTimestamp(*context, trusted, *timestamp, message.certificates(),
                          policy.accept_legacy_algorithms);
    if (chain.status != kCodeSigningSuccess) {
      return {chain.status, "the timestamp's certificates are not good"};
    }
    timestamp_is_anchored = chain.anchor_trusted;
    chain_policy.consider_expiration = true;
    chain_policy.time = timestamp->time;
  }
  ChainResult chain = EvaluateChain(*context, *trusted.store,
                                    message.certificates(), chain_policy);
  if (chain.status != kCodeSigningSuccess) return ChainFailure(chain.status);
  if (policy.revocation_deadline &&
      IsRevoked(*context, chain.chain, trusted.lists,
                *policy.revocation_deadline)) {
    return {kCertificateRevoked, "a certificate has been revoked"};
  }
  signer.anchor_trusted = chain.anchor_trusted && timestamp_is_anchored;
  signer.chain = std::move(chain.chain);
  return {};
}

}  // namespace zu::platform
