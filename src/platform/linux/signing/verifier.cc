#include "platform/linux/signing/verifier.h"

#include <algorithm>
#include <map>
#include <optional>

#include "platform/code_signing.h"
#include "platform/linux/signing/appended/appended_signature.h"
#include "platform/linux/signing/bundle/resource_seal.h"
#include "platform/linux/signing/certificate_facts.h"
#include "platform/linux/signing/cms/signed_message.h"
#include "platform/linux/signing/directory_code.h"
#include "platform/linux/signing/file_content.h"
#include "platform/linux/signing/macho/macho_image.h"
#include "platform/linux/signing/signer_check.h"
#include "platform/linux/signing/status.h"
#include "platform/linux/signing/trust/certificates.h"
#include "platform/linux/signing/trust/revocation.h"

namespace zu::platform {
namespace {

// Bundles in bundles. Deeper ones than any host builds count as damaged.
constexpr int kMaxNesting = 16;
constexpr uint64_t kMaxResourceListSize = 64 << 20;
// What one check reads at the most, all nested code included. Files can be
// said to be of any size and hold next to nothing.
constexpr uint64_t kMaxContentSize = uint64_t{64} << 30;

constexpr CheckResult kUnreadable{kCodeSigningNotVerifiable,
                                  "the file cannot be read"};

CheckResult ParseMessage(const std::shared_ptr<const CryptoContext>& context,
                         std::vector<std::byte> bytes, SignedMessage& message) {
  switch (message.Parse(context, std::move(bytes))) {
    case SignedMessage::ParseResult::kOk:
      break;
    case SignedMessage::ParseResult::kMalformed:
      return {kCodeSigningSignatureInvalid, "the signature is broken"};
    case SignedMessage::ParseResult::kUnsupported:
      return {kCodeSigningSignatureUnsupported,
              "the signature is of an unsupported kind"};
  }
  if (message.content() || message.content_type() != NID_pkcs7_data) {
    return {kCodeSigningSignatureUnsupported,
            "the signature is not a detached one"};
  }
  return {};
}

// Formats of our own have no past to be tolerant of.
bool IsModern(const SignedMessage& message) {
  return message.has_signed_attributes() &&
         EVP_MD_get_type(&message.digest()) != NID_sha1;
}

// Where an appended signature lies, and its bytes.
struct AppendedSignature {
  CheckResult found;
  SignatureLayout layout = {};
  std::vector<std::byte> bytes = {};
};

AppendedSignature FindAppended(int descriptor) {
  AppendedSignature signature;
  signature.layout = ReadSignatureLayout(descriptor);
  switch (signature.layout.state) {
    case SignatureLayout::State::kUnreadable:
      signature.found = kUnreadable;
      break;
    case SignatureLayout::State::kNeither:
      signature.found = {kCodeSigningUnsigned,
                         "neither Mach-O, nor ELF, nor a script"};
      break;
    case SignatureLayout::State::kUnsigned:
      signature.found = {kCodeSigningUnsigned, "not signed"};
      break;
    case SignatureLayout::State::kMalformed:
      signature.found = {kCodeSigningSignatureInvalid,
                         "the appended signature is broken"};
      break;
    case SignatureLayout::State::kSigned:
      auto bytes = ReadAppendedSignature(descriptor, signature.layout);
      if (bytes) {
        signature.bytes = *std::move(bytes);
      } else {
        signature.found = kUnreadable;
      }
      break;
  }
  return signature;
}

// The pieces of code in which signatures may lie: slices, or a bundle's files.
// Empty: the file is not for code directories.
CheckResult FindDirectoryCode(const StaticCode& code, bool all,
                              std::vector<DirectoryCode>& pieces) {
  const BundleLayout* const bundle = code.bundle() ? &*code.bundle() : nullptr;
  std::vector<MachOSlice> slices;
  switch (ReadMachO(code.descriptor(), slices)) {
    case MachOResult::kOk: {
      // The native one first: what is asked about goes by it.
      const MachOSlice& native = NativeSlice(slices);
      pieces.push_back(
          DirectoryCode::FromSlice(code.descriptor(), native, bundle));
      for (const MachOSlice& slice : slices) {
        if (!all || &slice == &native) continue;
        pieces.push_back(
            DirectoryCode::FromSlice(code.descriptor(), slice, bundle));
      }
      return {};
    }
    case MachOResult::kNotMachO:
      if (bundle != nullptr) {
        pieces.push_back(DirectoryCode::FromFiles(code.descriptor(), *bundle));
      }
      return {};
    case MachOResult::kMalformed:
      return {kCodeSigningBadObjectFormat, "the Mach-O file is broken"};
    case MachOResult::kUnreadable:
      break;
  }
  return kUnreadable;
}

// One call of Verify, nested code included.
class Check {
 public:
  Check(std::shared_ptr<const CryptoContext> context, const TrustSet& trusted,
        const VerifyOptions& options)
      : context_(std::move(context)), trusted_(trusted), options_(options) {
    signer_policy_.consider_expiration = options.consider_expiration;
    if (options.check_revocation) {
      signer_policy_.revocation_deadline =
          std::chrono::steady_clock::now() + kNetworkTime;
    }
  }

  // `whole`: resources and pages, too, instead of the directory only. `facts`
  // are those of each piece of code; the native one is the first.
  CheckResult Run(const StaticCode& code, bool whole, int depth,
                  const Expression* requirement,
                  std::vector<SignatureFacts>& facts) {
    std::vector<DirectoryCode> pieces;
    const CheckResult found =
        FindDirectoryCode(code, options_.all_architectures, pieces);
    if (!found.good()) return found;
    if (pieces.empty()) {
      return RunAppended(code.descriptor(), whole, requirement,
                         facts.emplace_back());
    }
    for (const DirectoryCode& piece : pieces) {
      const CheckResult result =
          RunDirectory(piece, whole, requirement, facts.emplace_back());
      if (!result.good()) return result;
      if (piece.signature().best().team !=
          pieces.front().signature().best().team) {
        return {kCodeSigningSignatureInvalid,
                "the architectures are signed by different teams"};
      }
    }
    if (!code.bundle() || !whole || !options_.check_resources) return {};
    return RunResources(*code.bundle(), pieces.front(), depth);
  }

 private:
  // What costs little comes first, so that only files with a good signature
  // (and of whom the requirement asks for) are read as a whole.
  CheckResult RunAppended(int descriptor, bool whole,
                          const Expression* requirement,
                          SignatureFacts& facts) {
    AppendedSignature signature = FindAppended(descriptor);
    if (!signature.found.good()) return signature.found;
    SignedMessage message;
    CheckResult result =
        ParseMessage(context_, std::move(signature.bytes), message);
    if (!result.good()) return result;
    if (!IsModern(message)) {
      return {kCodeSigningSignatureUnsupported,
              "the signature lacks attributes or is made with SHA-1"};
    }
    Signer signer;
    result = CheckSigner(context_, trusted_, message, signer_policy_, signer);
    if (!result.good()) return result;
    facts.identifier = message.content_identifier();
    AddSigner(signer, facts);
    result = CheckRequirement(facts, requirement);
    if (!result.good() || !whole) return result;
    if (signature.layout.content_size > options_.max_content_size ||
        !Spend(signature.layout.content_size)) {
      return {kCodeSigningNotVerifiable, "the file is too large"};
    }
    const auto digest = DigestOfContent(
        descriptor, signature.layout.content_size, message.digest());
    if (!digest) return kUnreadable;
    if (!message.VerifyContent(*digest)) {
      return {kCodeSigningSignatureFailed,
              "the content is not what was signed"};
    }
    return {};
  }

  CheckResult RunDirectory(const DirectoryCode& code, bool whole,
                           const Expression* requirement,
                           SignatureFacts& facts) {
    if (!code.found().good()) return code.found();
    const EmbeddedSignature& signature = code.signature();
    const CodeDirectory& directory = signature.best();
    if (directory.is_ad_hoc()) {
      // Nothing binds other directories to this one.
      facts.cdhashes.push_back(CdHash(*context_, directory));
    } else {
      if (signature.cms.empty()) {
        return {kCodeSigningUnsigned, "nobody has signed the code directory"};
      }
      SignedMessage message;
      CheckResult result = ParseMessage(
          context_, {signature.cms.begin(), signature.cms.end()}, message);
      if (!result.good()) return result;
      SignerPolicy policy = signer_policy_;
      policy.accept_legacy_algorithms = true;
      Signer signer;
      result = CheckSigner(context_, trusted_, message, policy, signer);
      if (!result.good()) return result;
      result = code.CheckDirectories(*context_, message);
      if (!result.good()) return result;
      AddSigner(signer, facts);
      for (const CodeDirectory& each : signature.directories) {
        facts.cdhashes.push_back(CdHash(*context_, each));
      }
    }
    facts.identifier = directory.identifier;
    CheckResult result = CheckRequirement(facts, requirement);
    if (!result.good()) return result;
    result = code.CheckComponents(*context_);
    if (!result.good() || !whole) return result;
    if (!Spend(directory.code_limit)) {
      return {kCodeSigningNotVerifiable, "the file is too large"};
    }
    return code.CheckCode(*context_);
  }

  static CheckResult CheckRequirement(const SignatureFacts& facts,
                                      const Expression* requirement) {
    if (requirement == nullptr || Satisfies(facts, *requirement)) return {};
    return {kCodeSigningRequirementFailed, "the requirement is not satisfied"};
  }

  CheckResult RunResources(const BundleLayout& bundle,
                           const DirectoryCode& code, int depth) {
    std::vector<ResourceSeal::NestedCode> nested;
    const CheckResult result = CompareResources(bundle, code, nested);
    if (!result.good()) return result;
    // The seal and its list are gone by now.
    for (const ResourceSeal::NestedCode& inner : nested) {
      switch (RunNested(inner, depth + 1)) {
        case kCodeSigningSuccess:
          break;
        case kCodeSigningUnsigned:
          return {kCodeSigningUnsignedNestedCode,
                  "code inside the bundle is not signed"};
        default:
          return {kCodeSigningBadNestedCode,
                  "code inside the bundle is not what was sealed"};
      }
    }
    return {};
  }

  CheckResult CompareResources(const BundleLayout& bundle,
                               const DirectoryCode& code,
                               std::vector<ResourceSeal::NestedCode>& nested) {
    const CodeDirectory& directory = code.signature().best();
    const auto list = ReadRegularFile(
        bundle.signature_directory + "/CodeResources", kMaxResourceListSize);
    if (directory.SpecialSlot(kResourcesSlot).empty() || !list) {
      return {kCodeSigningResourcesNotFound, "the resources are not sealed"};
    }
    if (!MatchesSlot(*context_, directory, kResourcesSlot, *list)) {
      return {kCodeSigningResourceDirectoryFailed,
              "the list of resources is not the signed one"};
    }
    const auto seal = ResourceSeal::Parse(*list);
    if (!seal) {
      return {kCodeSigningResourcesInvalid, "the list of resources is broken"};
    }
    const int32_t status =
        seal->VerifyResources(*context_, bundle, budget_, nested);
    switch (status) {
      case kCodeSigningSuccess:
        return {};
      case kCodeSigningResourceNotSupported:
        return {status, "the bundle holds what cannot be sealed"};
      default:
        return {status, "a resource is missing, was changed or was added"};
    }
  }

  // Each piece of nested code is checked once, however often seals name it:
  // seals can name the code of all bundles below them.
  int32_t RunNested(const ResourceSeal::NestedCode& inner, int depth) {
    const std::optional<Expression> rule = ParseRequirement(inner.requirement);
    if (!rule) return kCodeSigningResourcesInvalid;
    const std::optional<StaticCode> code = StaticCode::Open(inner.path);
    if (!code) return kCodeSigningUnsigned;
    const auto [position, is_new] =
        nested_.try_emplace(code->bundle() ? code->bundle()->root : inner.path);
    Nested& nested = position->second;
    if (is_new) {
      // Until it is known: what contains itself is bad.
      nested.result.status = kCodeSigningBadNestedCode;
      if (depth <= kMaxNesting) {
        nested.result = Run(*code, options_.check_nested_code, depth, nullptr,
                            nested.facts);
      }
    }
    if (!nested.result.good()) return nested.result.status;
    const bool satisfied = std::all_of(
        nested.facts.begin(), nested.facts.end(),
        [&](const SignatureFacts& facts) { return Satisfies(facts, *rule); });
    return satisfied ? kCodeSigningSuccess : kCodeSigningRequirementFailed;
  }

  static void AddSigner(const Signer& signer, SignatureFacts& facts) {
    for (const CertificatePtr& certificate : signer.chain) {
      facts.certificates.push_back(FactsOf(*certificate));
    }
    facts.anchor_trusted = signer.anchor_trusted;
  }

  bool Spend(uint64_t bytes) {
    if (bytes > budget_) return false;
    budget_ -= bytes;
    return true;
  }

  struct Nested {
    CheckResult result;
    std::vector<SignatureFacts> facts;
  };

  const std::shared_ptr<const CryptoContext> context_;
  const TrustSet& trusted_;
  const VerifyOptions& options_;
  SignerPolicy signer_policy_;
  uint64_t budget_ = kMaxContentSize;
  std::map<std::string, Nested> nested_;
};

// What can be told about a message, also where it is damaged.
void AddMessage(const std::shared_ptr<const CryptoContext>& context,
                const TrustSet* trusted, std::vector<std::byte> bytes,
                SignatureInformation& information) {
  SignedMessage message;
  const CheckResult result = ParseMessage(context, std::move(bytes), message);
  information.status = result.status;
  information.reason = result.reason;
  if (result.good()) {
    information.signing_time = message.signing_time();
    if (trusted != nullptr) {
      information.timestamp = TimestampOf(context, *trusted, message);
    }
    if (!information.identifier) {
      information.identifier = message.content_identifier();
      information.digest = EVP_MD_get0_name(&message.digest());
    }
  }
  // Up to the anchor, which signers leave out; without one, what came along.
  if (trusted != nullptr && !message.certificates().empty()) {
    information.certificates =
        EvaluateChain(*context, *trusted->store, message.certificates(),
                      {.purpose = ChainPurpose::kAny,
                       .accept_own_root = true,
                       .accept_legacy_algorithms = true})
            .chain;
  }
  if (information.certificates.empty()) {
    information.certificates = message.TakeCertificates();
  }
}

const char* NameOf(CodeHash hash) {
  switch (hash) {
    case CodeHash::kSha1:
      return "SHA-1";
    case CodeHash::kSha256:
      return "SHA-256";
    case CodeHash::kSha256Truncated:
      return "SHA-256, truncated";
    case CodeHash::kSha384:
      break;
  }
  return "SHA-384";
}

}  // namespace

std::shared_ptr<Verifier> Verifier::Create(std::string anchors_directory) {
  std::shared_ptr<const CryptoContext> context = CryptoContext::Create();
  if (!context) return nullptr;
  return std::shared_ptr<Verifier>(
      new Verifier(std::move(context), std::move(anchors_directory)));
}

Verification Verifier::Verify(const StaticCode& code,
                              const VerifyOptions& options) {
  const ScopedErrorMark mark;
  const std::shared_ptr<const TrustSet> trusted = anchors_.Current();
  if (!trusted) return {kCertificateNotTrusted, "memory is short"};
  std::vector<SignatureFacts> facts;
  const CheckResult result =
      Check(context_, *trusted, options)
          .Run(code, true, 0, options.requirement, facts);
  Verification verification{result.status, result.reason};
  if (result.good()) verification.facts = std::move(facts.front());
  return verification;
}

SignatureInformation Verifier::Inspect(const StaticCode& code) {
  const ScopedErrorMark mark;
  SignatureInformation information;
  const std::shared_ptr<const TrustSet> trusted = anchors_.Current();
  const auto fail = [&](const CheckResult& result) {
    information.status = result.status;
    information.reason = result.reason;
  };
  std::vector<DirectoryCode> pieces;
  const CheckResult found = FindDirectoryCode(code, false, pieces);
  if (!found.good()) {
    fail(found);
    return information;
  }
  if (pieces.empty()) {
    AppendedSignature signature = FindAppended(code.descriptor());
    information.format =
        signature.layout.format == AppendedFormat::kElf ? "ELF" : "script";
    information.content_size = signature.layout.content_size;
    if (!signature.found.good()) {
      fail(signature.found);
    } else {
      AddMessage(context_, trusted.get(), std::move(signature.bytes),
                 information);
    }
    return information;
  }
  const DirectoryCode& piece = pieces.front();
  information.format = code.bundle() ? "bundle" : "Mach-O";
  const EmbeddedSignature& signature = piece.signature();
  const auto add_message = [&] {
    if (signature.cms.empty()) return;
    AddMessage(context_, trusted.get(),
               {signature.cms.begin(), signature.cms.end()}, information);
  };
  if (!piece.found().good()) {
    add_message();
    fail(piece.found());
    return information;
  }
  const CodeDirectory& directory = signature.best();
  information.identifier = directory.identifier;
  information.team = directory.team;
  information.ad_hoc = directory.is_ad_hoc();
  information.digest = NameOf(directory.hash);
  information.content_size = directory.code_limit;
  for (const CodeDirectory& each : signature.directories) {
    information.cdhashes.push_back(CdHash(*context_, each));
  }
  if (!information.ad_hoc) add_message();
  return information;
}

Trust Verifier::EvaluateTrust(std::span<const CertificatePtr> chain) {
  const ScopedErrorMark mark;
  const std::shared_ptr<const TrustSet> trusted = anchors_.Current();
  if (!trusted || chain.empty()) return Trust::kUntrusted;
  const ChainResult result = EvaluateChain(
      *context_, *trusted->store, chain,
      {.purpose = ChainPurpose::kAny, .accept_legacy_algorithms = true});
  if (result.status != kCodeSigningSuccess || !result.anchor_trusted) {
    return Trust::kUntrusted;
  }
  return IsRevoked(*context_, result.chain, trusted->lists,
                   std::chrono::steady_clock::now() + kNetworkTime)
             ? Trust::kRevoked
             : Trust::kTrusted;
}

}  // namespace zu::platform
