#include "platform/linux/signing/signer/signer.h"

#include <fcntl.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/linux/signing/elf/elf_signature.h"
#include "platform/linux/signing/file_content.h"
#include "platform/linux/signing/signer/file_rewriter.h"

namespace zu::platform {
namespace {

struct BufferDeleter {
  void operator()(unsigned char* buffer) const { OPENSSL_free(buffer); }
};

std::string CryptoError(const char* what) {
  const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
  return std::string(what) + ": " +
         (reason != nullptr ? reason : "libcrypto gives no reason");
}

std::string SystemError(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

BioPtr OpenText(std::string_view text) {
  return BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

}  // namespace

std::optional<SigningIdentity> SigningIdentity::FromPem(
    std::string_view key, std::string_view certificates, std::string& error) {
  const ScopedErrorMark mark;
  SigningIdentity identity;
  identity.context = CryptoContext::Create();
  if (!identity.context) {
    error = "libcrypto cannot be initialized";
    return std::nullopt;
  }
  const BioPtr key_text = OpenText(key);
  identity.key.reset(
      PEM_read_bio_PrivateKey_ex(key_text.get(), nullptr, nullptr, nullptr,
                                 identity.context->get(), nullptr));
  if (!identity.key) {
    error = CryptoError("the private key cannot be read");
    return std::nullopt;
  }
  const BioPtr certificate_text = OpenText(certificates);
  identity.chain.reset(sk_X509_new_null());
  for (;;) {
    X509* certificate = X509_new_ex(identity.context->get(), nullptr);
    if (PEM_read_bio_X509(certificate_text.get(), &certificate, nullptr,
                          nullptr) == nullptr) {
      X509_free(certificate);
      break;
    }
    if (!identity.leaf) {
      identity.leaf.reset(certificate);
    } else {
      sk_X509_push(identity.chain.get(), certificate);
    }
  }
  if (!identity.leaf ||
      ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE) {
    error = CryptoError("the certificates cannot be read");
    return std::nullopt;
  }
  if (X509_check_private_key(identity.leaf.get(), identity.key.get()) != 1) {
    error = "the certificate is not the private key's";
    return std::nullopt;
  }
  return identity;
}

std::optional<std::vector<std::byte>> CreateSignature(
    const SigningIdentity& identity, int descriptor, uint64_t content_size,
    std::string_view identifier, std::string& error) {
  const ScopedErrorMark mark;
  constexpr unsigned kFlags = CMS_BINARY | CMS_DETACHED | CMS_PARTIAL;
  const CmsPtr message(CMS_sign_ex(nullptr, nullptr, identity.chain.get(),
                                   nullptr, kFlags, identity.context->get(),
                                   nullptr));
  CMS_SignerInfo* const signer =
      !message
          ? nullptr
          : CMS_add1_signer(
                message.get(), identity.leaf.get(), identity.key.get(),
                identity.context->Digest(NID_sha256), kFlags | CMS_NOSMIMECAP);
  if (signer == nullptr ||
      CMS_signed_add1_attr_by_NID(signer, NID_id_smime_aa_contentIdentifier,
                                  V_ASN1_OCTET_STRING, identifier.data(),
                                  static_cast<int>(identifier.size())) != 1) {
    error = CryptoError("the signature cannot be started");
    return std::nullopt;
  }
  const BioPtr content(CMS_dataInit(message.get(), nullptr));
  if (!content) {
    error = CryptoError("the signature cannot be started");
    return std::nullopt;
  }
  if (!ReadInChunks(descriptor, content_size,
                    [&](std::span<const std::byte> chunk) {
                      size_t written = 0;
                      return BIO_write_ex(content.get(), chunk.data(),
                                          chunk.size(), &written) == 1 &&
                             written == chunk.size();
                    })) {
    error = SystemError("the content cannot be read");
    return std::nullopt;
  }
  if (CMS_dataFinal(message.get(), content.get()) != 1) {
    error = CryptoError("the key does not sign");
    return std::nullopt;
  }
  unsigned char* der = nullptr;
  const int size = i2d_CMS_ContentInfo(message.get(), &der);
  const std::unique_ptr<unsigned char, BufferDeleter> owner(der);
  if (size <= 0 || static_cast<uint32_t>(size) > kMaxSignatureSize) {
    error = "the signature cannot be encoded or is too large";
    return std::nullopt;
  }
  const auto* const bytes = reinterpret_cast<const std::byte*>(der);
  return std::vector<std::byte>(bytes, bytes + size);
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
    case State::kNotElf:
      error = path + ": not an ELF file";
      return SignResult::kRefused;
    case State::kMalformed:
      error = path + ": has a broken signature trailer, strip it first";
      return SignResult::kRefused;
    case State::kSigned:
      if (options.replace) break;
      error = path + ": signed already";
      return SignResult::kRefused;
    case State::kUnsigned:
      break;
  }
  // The copy is what gets signed: nobody else writes to it.
  if (!rewriter->CopyContent(layout.content_size)) {
    error = SystemError(path);
    return SignResult::kFailed;
  }
  const std::string identifier = options.identifier.empty()
                                     ? path.substr(path.rfind('/') + 1)
                                     : options.identifier;
  const auto signature = CreateSignature(
      identity, rewriter->copy(), layout.content_size, identifier, error);
  if (!signature) {
    error = path + ": " + error;
    return SignResult::kFailed;
  }
  if (!rewriter->Append(*signature) ||
      !rewriter->Append(
          EncodeSignatureTrailer(static_cast<uint32_t>(signature->size()))) ||
      !rewriter->Commit()) {
    error = SystemError(path);
    return SignResult::kFailed;
  }
  return SignResult::kSigned;
}

}  // namespace zu::platform
