#include "signing/signer_information.h"

#include <cstddef>
#include <cstring>
#include <span>

#include "ZuHelper.h"
#include "platform/code_signing.h"
#include "platform/digest.h"
#include "signing/signature_status.h"
#include "support/guarded.h"
#include "support/hex.h"

namespace zu::signing {
namespace {

// The signature is not checked: a broken one still names its signer.
bool WriteThumbprint(const platform::CodeRef& code, uint8_t* digest) {
  if (!code) return false;
  const auto information = platform::CopySigningInformation(*code);
  if (!information || information->certificates.empty()) return false;
  return platform::Sha1(
      platform::EncodedCertificate(*information->certificates.front()),
      std::span<std::byte, platform::kSha1Size>(
          reinterpret_cast<std::byte*>(digest), platform::kSha1Size));
}

// A larger buffer is refused as well: callers state what they expect.
bool TakesThumbprint(const uint8_t* digest, uint16_t capacity) {
  static_assert(ZU_THUMBPRINT_SIZE == platform::kSha1Size);
  return digest != nullptr && capacity == ZU_THUMBPRINT_SIZE;
}

}  // namespace

bool QuerySigner(const char* path, bool check_revocation,
                 const SignerInformation& information) {
  if (information.is_signed == nullptr || information.is_valid == nullptr) {
    return false;
  }
  const SignatureStatus status = StatusForPath(
      path, check_revocation,
      {information.issuer_name, ZU_SIGNER_NAME_SIZE, information.signer_name,
       ZU_SIGNER_NAME_SIZE, information.signing_date, ZU_SIGNER_NAME_SIZE});
  *information.is_signed = status != ZU_SIGNATURE_NONE ? 1 : 0;

  if (status != ZU_SIGNATURE_NONE && information.thumbprint_hex != nullptr) {
    uint8_t digest[ZU_THUMBPRINT_SIZE];
    if (GetSecThumbprint(path, digest, sizeof(digest)) != 1) return false;
    // 40 digits, the NUL behind the last of them, and one more.
    char text[ZU_THUMBPRINT_TEXT_SIZE] = {};
    WriteUpperHex(std::as_bytes(std::span(digest)), text);
    std::memcpy(information.thumbprint_hex, text, sizeof(text));
  }

  *information.is_valid = status == ZU_SIGNATURE_VALID ? 1 : 0;
  if (information.signer_name_copy != nullptr &&
      information.signer_name != nullptr) {
    // No terminator: callers hand in zeros. Without code the name is still
    // theirs, and may lack its own.
    std::memcpy(information.signer_name_copy, information.signer_name,
                ::strnlen(information.signer_name, ZU_SIGNER_NAME_SIZE));
  }
  return true;
}

}  // namespace zu::signing

uint32_t GetSecThumbprint(const char* path, uint8_t* digest,
                          uint16_t capacity) {
  if (!zu::signing::TakesThumbprint(digest, capacity)) return 0;
  return zu::Guarded(__func__, 0u, [=] {
    return zu::signing::WriteThumbprint(zu::signing::GetSecStaticCodeRef(path),
                                        digest)
               ? 1u
               : 0u;
  });
}

uint32_t GetSecThumbprintForPID(int32_t pid, uint8_t* digest,
                                uint16_t capacity) {
  if (!zu::signing::TakesThumbprint(digest, capacity)) return 0;
  return zu::Guarded(__func__, 0u, [=] {
    return zu::signing::WriteThumbprint(
               zu::platform::CopyCodeOfProcess({.pid = pid}), digest)
               ? 1u
               : 0u;
  });
}
