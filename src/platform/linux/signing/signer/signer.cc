#include "platform/linux/signing/signer/signer.h"

#include <openssl/objects.h>
#include <cerrno>
#include <cstring>

#include "platform/linux/signing/appended/appended_signature.h"
#include "platform/linux/signing/file_content.h"
#include "platform/linux/signing/signer/file_rewriter.h"

namespace zu::platform {
namespace {

std::string SystemError(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

// The block of a script starts on a line of its own: a last line without its
// end gets one, which is signed with the rest.
[[nodiscard]] bool EndLastLine(FileRewriter& rewriter, uint64_t& size) {
  static constexpr std::byte kNewline{'\n'};
  std::byte last{};
  if (!ReadAt(rewriter.copy(), size - 1, {&last, 1})) return false;
  if (last == kNewline) return true;
  ++size;
  return rewriter.Append({&kNewline, 1});
}

[[nodiscard]] bool AppendSignature(FileRewriter& rewriter,
                                   AppendedFormat format,
                                   const std::vector<std::byte>& signature) {
  if (format == AppendedFormat::kScript) {
    const std::string block = EncodeScriptBlock(signature);
    return rewriter.Append(std::as_bytes(std::span(block)));
  }
  return rewriter.Append(signature) &&
         rewriter.Append(
             EncodeSignatureTrailer(static_cast<uint32_t>(signature.size())));
}

}  // namespace

std::optional<std::vector<std::byte>> CreateSignature(
    const SigningIdentity& identity, int descriptor, uint64_t content_size,
    std::string_view identifier, std::string& error,
    const TimestampSource& timestamp) {
  const ScopedErrorMark mark;
  const auto digest = DigestOfContent(descriptor, content_size,
                                      *identity.context->Digest(NID_sha256));
  if (!digest) {
    error = SystemError("the content cannot be read");
    return std::nullopt;
  }
  auto signature = CreateCms(
      identity, *digest,
      {.timestamp = timestamp, .content_identifier = std::string(identifier)},
      error);
  if (signature && signature->size() > kMaxSignatureSize) {
    error = "the signature is too large";
    return std::nullopt;
  }
  return signature;
}

SignResult SignFile(const std::string& path, const SigningIdentity& identity,
                    const SignOptions& options, std::string& error) {
  std::optional<FileRewriter> rewriter = FileRewriter::Open(path);
  if (!rewriter) {
    error = SystemError(path);
    return SignResult::kFailed;
  }
  using State = SignatureLayout::State;
  const SignatureLayout layout = ReadSignatureLayout(rewriter->original());
  switch (layout.state) {
    case State::kUnreadable:
      error = path + ": cannot be read";
      return SignResult::kFailed;
    case State::kNeither:
      error = path + ": neither an ELF file nor a script";
      return SignResult::kRefused;
    case State::kMalformed:
      error = path + ": has a broken signature, remove it first";
      return SignResult::kRefused;
    case State::kSigned:
      if (options.replace) break;
      error = path + ": signed already";
      return SignResult::kRefused;
    case State::kUnsigned:
      break;
  }
  // The copy is what gets signed: nobody else writes to it.
  uint64_t content_size = layout.content_size;
  if (!rewriter->CopyContent(content_size) ||
      (layout.format == AppendedFormat::kScript &&
       !EndLastLine(*rewriter, content_size))) {
    error = SystemError(path);
    return SignResult::kFailed;
  }
  const std::string identifier = options.identifier.empty()
                                     ? path.substr(path.rfind('/') + 1)
                                     : options.identifier;
  const auto signature =
      CreateSignature(identity, rewriter->copy(), content_size, identifier,
                      error, options.timestamp);
  if (!signature) {
    error = path + ": " + error;
    return SignResult::kFailed;
  }
  if (!AppendSignature(*rewriter, layout.format, *signature) ||
      !rewriter->Commit()) {
    error = SystemError(path);
    return SignResult::kFailed;
  }
  return SignResult::kSigned;
}

}  // namespace zu::platform
