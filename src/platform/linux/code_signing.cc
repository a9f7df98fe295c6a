#include "platform/code_signing.h"

#include <openssl/crypto.h>
#include <mutex>
#include <optional>
#include <utility>

#include "build_values.h"
#include "platform/linux/signing/process_code.h"
#include "platform/linux/signing/requirement.h"
#include "platform/linux/signing/status.h"
#include "platform/linux/signing/verifier.h"
#include "support/never_destroyed.h"

namespace zu::platform {

struct Requirement {
  Expression expression;
};

// A process's code is the only kind that can be made so far.
struct Code {
  ProcessCode process;
};

namespace {

// What any local user can make us read before a new client is refused.
constexpr uint64_t kMaxProcessContentSize = uint64_t{1} << 30;

// One verifier for all of the library, made when it is first needed. Threads of
// the host may still be in here while the process exits: they keep what they
// use, and later ones get none.
class SharedVerifier {
 public:
  constexpr SharedVerifier() = default;

  std::shared_ptr<Verifier> Get() {
    const std::lock_guard lock(mutex_);
    if (!verifier_ && !closed_) {
      verifier_ = Verifier::Create(ZU_ANCHORS_DIRECTORY);
    }
    return closed_ ? nullptr : verifier_;
  }

  void Close() {
    // Held for good in a child that was forked while another thread had it.
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock) return;
    closed_ = true;
    if (!verifier_) return;
    // A host may have shut libcrypto down by itself. Its objects can only be
    // left then.
    if (OPENSSL_init_crypto(0, nullptr) == 1) verifier_.reset();
  }

 private:
  std::mutex mutex_;
  bool closed_ = false;
  std::shared_ptr<Verifier> verifier_;
};

constinit NeverDestroyed<SharedVerifier> g_shared;

// Exit handlers run in reverse. The early priority puts libcrypto's own before
// this one, and this one before those that stop the library's threads: first
// nobody verifies any more, then the verifier goes, then libcrypto.
struct VerifierLifetime {
  // Without any option nothing would be done and no handler registered; this
  // one costs next to nothing and changes nothing for the host.
  VerifierLifetime() { OPENSSL_init_crypto(OPENSSL_INIT_ASYNC, nullptr); }
  ~VerifierLifetime() { g_shared.value.Close(); }
};
[[gnu::init_priority(101)]] const VerifierLifetime g_lifetime;

}  // namespace

RequirementRef CompileRequirement(const char* text) {
  std::optional<Expression> expression = ParseRequirement(text);
  if (!expression) return nullptr;
  return std::make_shared<const Requirement>(
      Requirement{*std::move(expression)});
}

CodeRef CopyCodeOfProcess(const ProcessReference& process) {
  std::optional<ProcessCode> code = ProcessCode::Open(process);
  if (!code) return nullptr;
  return std::make_shared<const Code>(Code{*std::move(code)});
}

CodeKind KindOf(const Code& /*code*/) { return CodeKind::kDynamic; }

int32_t CheckStaticCodeValidity(const Code& code, uint32_t flags,
                                const Requirement* requirement) {
  const std::shared_ptr<Verifier> verifier = g_shared.value.Get();
  if (!verifier) return kCodeSigningInternalError;
  const Verification verification = verifier->Verify(
      code.process.executable(),
      {.consider_expiration = (flags & kConsiderExpiration) != 0,
       .max_content_size = kMaxProcessContentSize});
  if (verification.status != kCodeSigningSuccess) return verification.status;
  if (requirement != nullptr &&
      !Satisfies(verification.facts, requirement->expression)) {
    return kCodeSigningRequirementFailed;
  }
  return kCodeSigningSuccess;
}

int32_t CheckCodeValidity(const Code& code, uint32_t flags,
                          const Requirement* requirement) {
  const int32_t status = CheckStaticCodeValidity(code, flags, requirement);
  if (status != kCodeSigningSuccess) return status;
  switch (code.process.CurrentState()) {
    case ProcessCode::State::kRunning:
      return kCodeSigningSuccess;
    case ProcessCode::State::kEnded:
      return kCodeSigningNoSuchCode;
    case ProcessCode::State::kReplaced:
      break;
  }
  return kCodeSigningGuestInvalid;
}

}  // namespace zu::platform
