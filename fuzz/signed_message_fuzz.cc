// A signature's message or a timestamp token: read, with all that it says, and
// checked. The same bytes as the content of a token.

#include <openssl/objects.h>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "platform/linux/signing/cms/signed_message.h"
#include "platform/linux/signing/cms/timestamp.h"

namespace zu::platform {
namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

void Check(std::span<const std::byte> bytes) {
  static const auto context = CryptoContext::Create();
  if (const auto info = ParseTimestampInfo(bytes)) {
    Require(info->digest.size() < bytes.size());
  }
  (void)VerifyTimestampToken(context, bytes, {});

  SignedMessage message;
  const bool parsed = message.Parse(context, {bytes.begin(), bytes.end()}) ==
                      SignedMessage::ParseResult::kOk;
  Require(message.certificates().size() <= 16);
  // Nothing is left in the queue, which is the host's.
  Require(ERR_peek_error() == 0);
  if (!parsed) return;
  const auto digest = DigestOf(bytes, message.digest());
  // Nothing can be signed that holds its own digest.
  Require(!message.VerifyContent(digest));
  if (message.VerifyAttributes()) Require(!message.certificates().empty());
  (void)message.signing_time();
  (void)message.content_identifier();
  Require(!message.content() || message.content()->size() < bytes.size());
  Require(!message.timestamp_token() ||
          message.timestamp_token()->size() < bytes.size());
  Require(!message.has_broken_directory_digests() ||
          message.has_signed_attributes());
  Require(ERR_peek_error() == 0);
}

}  // namespace
}  // namespace zu::platform

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zu::platform::Check(std::as_bytes(std::span(data, size)));
  return 0;
}
