#include "signing/signature_status.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "support/guarded.h"

namespace zu::signing {
namespace {

void Clear(char* buffer, uint32_t capacity) {
  if (buffer != nullptr && capacity != 0) buffer[0] = '\0';
}

// All or nothing: what does not fit leaves the (emptied) buffer as it is.
void WriteText(std::string_view text, char* buffer, uint32_t capacity) {
  if (buffer == nullptr || text.size() >= capacity) return;
  std::memcpy(buffer, text.data(), text.size());
  buffer[text.size()] = '\0';
}

SignatureStatus StatusFor(int32_t validity) {
  switch (validity) {
    case platform::kCodeSigningSuccess:
      return ZU_SIGNATURE_VALID;
    case platform::kCodeSigningUnsigned:
      return ZU_SIGNATURE_NONE;
    default:
      return ZU_SIGNATURE_INVALID;
  }
}

}  // namespace

platform::CodeRef GetSecStaticCodeRef(const char* path) {
  return path == nullptr ? nullptr : platform::CreateStaticCode(path);
}

void GetCertificateSubject(const platform::CertificateRef& certificate,
                           char* buffer, uint32_t capacity) {
  Clear(buffer, capacity);
  if (buffer == nullptr || !certificate) return;
  if (const auto summary = platform::SubjectSummary(*certificate)) {
    WriteText(*summary, buffer, capacity);
  }
}

void FormatSigningDate(double absolute_time, char* buffer, uint32_t capacity) {
  using std::chrono::days;
  using std::chrono::seconds;
  constexpr std::chrono::sys_days kEpoch =
      std::chrono::year(2001) / std::chrono::January / 1;
  // Far more than the calendar can name, and safe to convert.
  constexpr double kLimit_s = 1e12;
  const double whole =
      std::isnan(absolute_time)
          ? 0.0
          : std::clamp(std::floor(absolute_time), -kLimit_s, kLimit_s);
  const std::chrono::sys_seconds time =
      kEpoch + seconds(static_cast<int64_t>(whole));
  const auto day = std::chrono::floor<days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);
  char text[64];
  const int length = std::snprintf(
      text, sizeof(text), "%02u/%02u/%d %02d:%02d",
      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
      static_cast<int>(date.year()), static_cast<int>(clock.hours().count()),
      static_cast<int>(clock.minutes().count()));
  WriteText({text, static_cast<size_t>(length)}, buffer, capacity);
}

bool ChainIsTrusted(std::span<const platform::CertificateRef> certificates) {
  const std::optional<uint32_t> result =
      platform::EvaluateTrustForRevocation(certificates);
  return result == platform::kTrustResultProceed ||
         result == platform::kTrustResultConfirm ||
         result == platform::kTrustResultUnspecified;
}

SignatureStatus StatusOfCode(const platform::CodeRef& code,
                             bool check_revocation,
                             const SignatureDetails& details) {
  Clear(details.issuer_name, details.issuer_capacity);
  Clear(details.signer_name, details.signer_capacity);
  Clear(details.signing_date, details.date_capacity);
  if (!code) return ZU_SIGNATURE_NONE;

  // Without the resources, to keep the check of a large bundle short.
  uint32_t flags =
      platform::kCheckAllArchitectures | platform::kDoNotValidateResources;
  if (check_revocation) {
    flags |= platform::kConsiderExpiration | platform::kEnforceRevocationChecks;
  }
  const int32_t validity =
      platform::CheckStaticCodeValidity(*code, flags, nullptr);
  const SignatureStatus status = StatusFor(validity);
  if (status == ZU_SIGNATURE_NONE) return status;

  const auto information = platform::CopySigningInformation(*code);
  if (!information) return status;
  const auto& certificates = information->certificates;
  // An ad-hoc signature can be valid, but names nobody.
  if (certificates.empty()) return ZU_SIGNATURE_NONE;

  GetCertificateSubject(certificates[0], details.signer_name,
                        details.signer_capacity);
  if (certificates.size() >= 2) {
    GetCertificateSubject(certificates[1], details.issuer_name,
                          details.issuer_capacity);
  } else if (details.issuer_name != nullptr && details.signer_name != nullptr &&
             details.signer_capacity != 0) {
    // Callers rely on this copy as it is: padded, and without a terminator when
    // the name fills the buffer.
    std::strncpy(details.issuer_name, details.signer_name,
                 details.issuer_capacity);
  }

  SignatureStatus result = status;
  if (status == ZU_SIGNATURE_VALID && check_revocation) {
    result = ChainIsTrusted(certificates) ? ZU_SIGNATURE_VALID
                                          : ZU_SIGNATURE_INVALID;
  }
  const std::optional<double> time = information->timestamp
                                         ? information->timestamp
                                         : information->signing_time;
  // Exactly 0 stands for a date that could not be read.
  if (time && *time != 0.0) {
    FormatSigningDate(*time, details.signing_date, details.date_capacity);
  }
  return result;
}

SignatureStatus StatusForPath(const char* path, bool check_revocation,
                              const SignatureDetails& details) {
  const platform::CodeRef code = GetSecStaticCodeRef(path);
  if (!code) return ZU_SIGNATURE_NONE;
  return StatusOfCode(code, check_revocation, details);
}

}  // namespace zu::signing

using zu::Guarded;
using zu::signing::SignatureDetails;
namespace platform = zu::platform;

uint32_t GetBundleSignatureStatus(const char* path) {
  return Guarded(__func__, ZU_SIGNATURE_NONE, [path] {
    const auto code = zu::signing::GetSecStaticCodeRef(path);
    if (!code) return ZU_SIGNATURE_NONE;
    return zu::signing::StatusFor(platform::CheckStaticCodeValidity(
        *code,
        platform::kConsiderExpiration | platform::kEnforceRevocationChecks |
            platform::kCheckNestedCode,
        nullptr));
  });
}

uint32_t GetSignatureStatus(ZuCodeRef code, uint8_t checkRevocation,
                            char* issuerName, uint32_t issuerCapacity,
                            char* signerName, uint32_t signerCapacity,
                            char* signingDate, uint32_t dateCapacity) {
  return Guarded(__func__, ZU_SIGNATURE_NONE, [=] {
    return zu::signing::StatusOfCode(
        platform::AdoptCodeObject(code), checkRevocation != 0,
        {issuerName, issuerCapacity, signerName, signerCapacity, signingDate,
         dateCapacity});
  });
}

uint32_t GetSignatureStatusForPath(const char* path, uint8_t checkRevocation,
                                   char* issuerName, uint32_t issuerCapacity,
                                   char* signerName, uint32_t signerCapacity,
                                   char* signingDate, uint32_t dateCapacity) {
  return Guarded(__func__, ZU_SIGNATURE_NONE, [=] {
    return zu::signing::StatusForPath(
        path, checkRevocation != 0,
        {issuerName, issuerCapacity, signerName, signerCapacity, signingDate,
         dateCapacity});
  });
}

uint32_t GetSignatureStatusForPID(int32_t pid, uint8_t checkRevocation,
                                  char* issuerName, uint32_t issuerCapacity,
                                  char* signerName, uint32_t signerCapacity,
                                  char* signingDate, uint32_t dateCapacity) {
  return Guarded(__func__, ZU_SIGNATURE_NONE, [=] {
    const auto code = platform::CopyCodeOfProcess({.pid = pid});
    if (!code) return ZU_SIGNATURE_NONE;
    return zu::signing::StatusOfCode(
        code, checkRevocation != 0,
        {issuerName, issuerCapacity, signerName, signerCapacity, signingDate,
         dateCapacity});
  });
}

uint32_t ValidateCerts(ZuCertificatesRef certificates) {
  return Guarded(__func__, 0u, [certificates] {
    const auto chain = platform::CertificatesOf(certificates);
    return zu::signing::ChainIsTrusted(chain) ? 1u : 0u;
  });
}
