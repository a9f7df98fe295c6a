// zusign show.

#include <openssl/x509.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/code_signing.h"
#include "platform/linux/signing/static_code.h"
#include "platform/linux/signing/verifier.h"
#include "zusign.h"

namespace zu::sign {
namespace {

// Signed names are somebody else's text; keeps the terminal out of their reach.
std::string Printable(std::string_view text) {
  std::string printable;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      printable.push_back(c);
      continue;
    }
    char escape[5];
    std::snprintf(escape, sizeof(escape), "\\x%02X", byte);
    printable += escape;
  }
  return printable;
}

std::string Hex(std::span<const std::byte> bytes) {
  std::string text;
  for (const std::byte byte : bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    text += kDigits[std::to_integer<unsigned>(byte) >> 4];
    text += kDigits[std::to_integer<unsigned>(byte) & 15];
  }
  return text;
}

// What is not there is not shown.
void PrintText(const char* label, const std::optional<std::string>& text) {
  if (text) std::printf("%s: %s\n", label, Printable(*text).c_str());
}

std::string TimeText(const std::tm& fields) {
  char text[64];
  return {text,
          std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &fields)};
}

void PrintTime(const char* label, const std::optional<int64_t>& time) {
  std::tm fields{};
  if (!time) return;
  const std::time_t seconds = *time;
  if (::gmtime_r(&seconds, &fields) == nullptr) return;
  PrintText(label, TimeText(fields));
}

void PrintTime(const char* label, const ASN1_TIME* time) {
  std::tm fields{};
  if (ASN1_TIME_to_tm(time, &fields) != 1) return;
  std::printf("%s %s\n", label, TimeText(fields).c_str());
}

void PrintName(const char* label, const X509_NAME* name) {
  const platform::BioPtr bio(BIO_new(BIO_s_mem()));
  // Escapes what is not printable.
  X509_NAME_print_ex(bio.get(), name, 0,
                     XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  std::printf("%s %.*s\n", label, static_cast<int>(size), text);
}

}  // namespace

ExitCode Show(const Arguments& arguments) {
  const auto code = platform::StaticCode::Open(arguments.path);
  if (!code) {
    return Fail(kSystem, "%s: %s", arguments.path, std::strerror(errno));
  }
  const auto verifier = platform::Verifier::Create(arguments.anchors);
  if (!verifier) return Fail(kSystem, "libcrypto cannot be initialized");
  const platform::SignatureInformation signature = verifier->Inspect(*code);
  if (signature.status != platform::kCodeSigningSuccess) {
    return Fail(CodeFor(signature.status), "%s: %s (%d)", arguments.path,
                signature.reason, signature.status);
  }
  std::printf("%s: signed%s (not checked)\n", arguments.path,
              signature.ad_hoc ? " ad-hoc" : "");
  std::printf("Format: %s\n", signature.format);
  PrintText("Identifier", signature.identifier);
  PrintText("Team", signature.team);
  PrintTime("Timestamp", signature.timestamp);
  PrintTime("Signed, as the signer claims", signature.signing_time);
  std::printf("Content: %llu bytes, %s\n",
              static_cast<unsigned long long>(signature.content_size),
              signature.digest);
  for (const std::vector<std::byte>& cdhash : signature.cdhashes) {
    PrintText("Code directory", Hex(cdhash));
  }
  int index = 0;
  for (const platform::CertificatePtr& certificate : signature.certificates) {
    std::printf("Certificate %d:\n", index++);
    PrintName("  Subject:", X509_get_subject_name(certificate.get()));
    PrintName("  Issuer: ", X509_get_issuer_name(certificate.get()));
    PrintTime("  From:   ", X509_get0_notBefore(certificate.get()));
    PrintTime("  Until:  ", X509_get0_notAfter(certificate.get()));
  }
  return kGood;
}

}  // namespace zu::sign
