#include "platform/linux/signing/verifier.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "platform/code_signing.h"
#include "platform/linux/signing/certificate_facts.h"
#include "platform/linux/signing/elf/elf_signature.h"
#include "platform/linux/signing/file_content.h"
#include "platform/linux/signing/status.h"
#include "platform/linux/signing/trust/certificates.h"

namespace zu::platform {
namespace {

constexpr char kUnreadable[] = "the file cannot be read";

FoundSignature Missing(int32_t status, const char* reason) {
  return {.status = status, .reason = reason};
}

Verification Refused(int32_t status, const char* reason) {
  return {.status = status, .reason = reason};
}

}  // namespace

std::shared_ptr<Verifier> Verifier::Create(std::string anchors_directory) {
  std::shared_ptr<const CryptoContext> context = CryptoContext::Create();
  if (!context) return nullptr;
  return std::shared_ptr<Verifier>(
      new Verifier(std::move(context), std::move(anchors_directory)));
}

FoundSignature Verifier::FindSignature(int descriptor) const {
  const ScopedErrorMark mark;
  const SignatureLayout layout = ReadSignatureLayout(descriptor);
  switch (layout.state) {
    case SignatureLayout::State::kUnreadable:
      return Missing(kCodeSigningNotVerifiable, kUnreadable);
    case SignatureLayout::State::kNotElf:
      return Missing(kCodeSigningUnsigned, "not an ELF file");
    case SignatureLayout::State::kUnsigned:
      return Missing(kCodeSigningUnsigned, "not signed");
    case SignatureLayout::State::kMalformed:
      return Missing(kCodeSigningSignatureInvalid,
                     "the signature trailer is broken");
    case SignatureLayout::State::kSigned:
      break;
  }
  std::vector<std::byte> bytes(layout.signature_size);
  if (!ReadAt(descriptor, layout.content_size, bytes)) {
    return Missing(kCodeSigningNotVerifiable, kUnreadable);
  }
  FoundSignature found{.content_size = layout.content_size};
  switch (found.signature.Parse(context_, bytes)) {
    case CmsSignature::ParseResult::kOk:
      return found;
    case CmsSignature::ParseResult::kMalformed:
      return Missing(kCodeSigningSignatureInvalid, "the signature is broken");
    case CmsSignature::ParseResult::kUnsupported:
      break;
  }
  return Missing(kCodeSigningSignatureUnsupported,
                 "the signature is of an unsupported kind");
}

// What costs little comes first, so that only files whose signature was made
// by a trusted signer are read as a whole.
Verification Verifier::Verify(int descriptor, const VerifyOptions& options) {
  const ScopedErrorMark mark;
  const FoundSignature found = FindSignature(descriptor);
  if (found.status != kCodeSigningSuccess) {
    return Refused(found.status, found.reason);
  }
  const CmsSignature& signature = found.signature;

  if (!signature.VerifySignature()) {
    return Refused(kCodeSigningSignatureFailed,
                   "the signature was not made by its certificate");
  }
  const std::shared_ptr<const TrustSet> anchors = anchors_.Current();
  if (!anchors) return Refused(kCertificateNotTrusted, "memory is short");
  const ChainResult chain =
      EvaluateChain(*context_, *anchors->store, signature.certificates(),
                    {.consider_expiration = options.consider_expiration});
  switch (chain.status) {
    case kCodeSigningSuccess:
      break;
    case kCertificateExpired:
      return Refused(chain.status, "a certificate is not in its time");
    case kCertificateUsageInvalid:
      return Refused(chain.status, "a certificate is not for signing code");
    default:
      return Refused(chain.status, "the certificates lead to no anchor");
  }

  if (found.content_size > options.max_content_size) {
    return Refused(kCodeSigningNotVerifiable, "the file is too large");
  }
  const auto digest =
      DigestOfContent(descriptor, found.content_size, signature.digest());
  if (!digest) {
    return Refused(kCodeSigningNotVerifiable, kUnreadable);
  }
  const std::span<const std::byte> claimed = signature.content_digest();
  if (!std::equal(digest->begin(), digest->end(), claimed.begin(),
                  claimed.end())) {
    return Refused(kCodeSigningSignatureFailed,
                   "the content is not what was signed");
  }

  Verification verification;
  SignatureFacts& facts = verification.facts;
  for (const CertificatePtr& certificate : chain.chain) {
    facts.certificates.push_back(FactsOf(*certificate));
  }
  facts.identifier = signature.identifier();
  facts.anchor_trusted = true;
  return verification;
}

}  // namespace zu::platform
