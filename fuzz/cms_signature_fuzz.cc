// A signature's message: read, with all that it says, and checked.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "platform/linux/signing/certificate_facts.h"
#include "platform/linux/signing/cms/cms_signature.h"

namespace zu::platform {
namespace {

void Check(const uint8_t* data, size_t size) {
  static const auto context = CryptoContext::Create();
  static const StorePtr no_anchors(X509_STORE_new());
  const ScopedErrorMark mark;
  CmsSignature signature;
  if (signature.Parse(context, std::as_bytes(std::span(data, size))) !=
      CmsSignature::ParseResult::kOk) {
    return;
  }
  (void)signature.VerifySignature();
  (void)signature.signing_time();
  if (signature.content_digest().size() > size) std::abort();
  for (const CertificatePtr& certificate : signature.certificates()) {
    (void)FactsOf(*certificate);
    (void)MaySignCode(*certificate);
  }
  // Nothing leads to an anchor where there is none.
  if (EvaluateChain(*context, *no_anchors, signature.certificates(), {})
          .status == 0) {
    std::abort();
  }
}

}  // namespace
}  // namespace zu::platform

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zu::platform::Check(data, size);
  return 0;
}
