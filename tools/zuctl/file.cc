// zuctl file: what the library tells of one file or bundle.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "ZuHelper.h"
#include "platform/json.h"
#include "quiet_errors.h"
#include "support/hex.h"
#include "table.h"
#include "text.h"

namespace zu::ctl {
namespace {

// Tells somebody at a terminal what takes its time.
class Progress {
 public:
  explicit Progress(const char* what) : shown_(::isatty(STDERR_FILENO) != 0) {
    if (shown_) std::fprintf(stderr, "%s ...", what);
  }
  ~Progress() {
    if (shown_) std::fputs("\r\x1b[K", stderr);
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

 private:
  const bool shown_;
};

Section FileItself(const std::string& path, const struct stat& status) {
  Section section{
      "file",
      "File",
      {{"path", "Path", TextValue(path)},
       {"kind", "Kind",
        TextValue(S_ISDIR(status.st_mode) ? "directory" : "file")}}};
  if (!S_ISREG(status.st_mode)) return section;
  const auto size = static_cast<uint64_t>(status.st_size);
  section.facts.push_back({"size", "Size", SizeValue(size)});
  char md5[ZU_MD5_TEXT_SIZE] = "";
  char sha1[ZU_SHA1_TEXT_SIZE] = "";
  {
    constexpr uint64_t kTakesTime = 64 << 20;
    std::optional<Progress> progress;
    if (size >= kTakesTime) progress.emplace("reading");
    ZuGetMd5AndSha1HashesOSX(path.c_str(), md5, sha1);
  }
  const auto hash = [](const char* text) {
    return *text != '\0' ? TextValue(text) : Unknown();
  };
  section.facts.push_back({"sha1", "SHA-1", hash(sha1)});
  section.facts.push_back({"md5_64", "MD5 on 64-bit words", hash(md5)});
  return section;
}

// "month/day/year hour:minute" as most programs read it.
Value SigningTime(const char* text) {
  int month = 0;
  int day = 0;
  int year = 0;
  int hour = 0;
  int minute = 0;
  if (std::sscanf(text, "%d/%d/%d %d:%d", &month, &day, &year, &hour,
                  &minute) != 5) {
    return Unknown();
  }
  char date[40];
  char clock[40];
  std::snprintf(date, sizeof date, "%04d-%02d-%02d", year, month, day);
  std::snprintf(clock, sizeof clock, "%02d:%02d", hour, minute);
  return {std::string(date) + " " + clock + " GMT",
          QuoteJson(std::string(date) + "T" + clock + "Z")};
}

Value NameOrUnknown(const std::string& name) {
  return name.empty() ? Unknown() : TextValue(name);
}

Section Signature(const std::string& path) {
  const Progress progress("checking the signature");
  const QuietErrors quiet;
  // Nested code and resources included; whoever signed.
  const uint32_t status = GetBundleSignatureStatus(path.c_str());
  const auto stated = [](const char* text, Tone tone) {
    return Value{text, QuoteJson(text), tone};
  };
  Section section{"signature", "Signature", {}};
  section.facts.push_back(
      {"status", "Status",
       status == ZU_SIGNATURE_VALID     ? stated("valid", Tone::kGood)
       : status == ZU_SIGNATURE_INVALID ? stated("invalid", Tone::kBad)
                                        : stated("unsigned", Tone::kPlain)});
  if (status == ZU_SIGNATURE_NONE) return section;

  char issuer[ZU_SIGNER_NAME_SIZE] = "";
  char signer[ZU_SIGNER_NAME_SIZE] = "";
  char date[64] = "";
  const uint32_t trust =
      GetSignatureStatusForPath(path.c_str(), 1, issuer, sizeof issuer, signer,
                                sizeof signer, date, sizeof date);
  if (trust == ZU_SIGNATURE_NONE) {
    section.facts.push_back(
        {"signer", "Signer", Unknown("nobody: an ad-hoc signature")});
    return section;
  }
  // That leaves a bundle's resources out, whose damage must not look trusted.
  const bool is_trusted =
      status == ZU_SIGNATURE_VALID && trust == ZU_SIGNATURE_VALID;
  Value trusted = Flag(is_trusted);
  trusted.tone = is_trusted ? Tone::kGood : Tone::kBad;
  section.facts.push_back({"trusted", "Trusted", std::move(trusted)});
  section.facts.push_back({"signer", "Signer", NameOrUnknown(signer)});
  // A signer's name of exactly that length leaves it without a NUL.
  section.facts.push_back(
      {"issuer", "Issued by",
       NameOrUnknown(std::string(issuer, ::strnlen(issuer, sizeof issuer)))});
  section.facts.push_back({"time", "Signed at", SigningTime(date)});
  uint8_t digest[ZU_THUMBPRINT_SIZE];
  char thumbprint[ZU_THUMBPRINT_TEXT_SIZE] = "";
  if (GetSecThumbprint(path.c_str(), digest, sizeof digest) == 1) {
    WriteUpperHex(std::as_bytes(std::span(digest)), thumbprint);
  }
  section.facts.push_back(
      {"thumbprint", "Thumbprint", NameOrUnknown(thumbprint)});
  return section;
}

// The library's JSON text; absent without a bundle.
std::optional<std::string> BundleJson(const std::string& path) {
  std::string json;
  uint32_t size = 1 << 16;
  do {  // Until it fits.
    json.resize(size);
    if (ZuGetExecutableInfo(path.c_str(), json.data(), &size) == 0) {
      return std::nullopt;
    }
  } while (size > json.size());
  json.resize(size);
  return json;
}

Section Bundle(const std::string& path) {
  Section section{"bundle", "Bundle", {}};
  const std::optional<std::string> json = BundleJson(path);
  platform::JsonReader reader;
  if (!json || !reader.Parse(json->data(), json->size(), json->size())) {
    section.facts.push_back({"identifier", "Identifier", Unknown("no bundle")});
    return section;
  }
  constexpr struct {
    const char* key;
    const char* label;
    const char* member;
  } kMembers[] = {{"identifier", "Identifier", "ProductName"},
                  {"version", "Version", "Version"},
                  {"copyright", "Copyright", "Copyright"}};
  for (const auto& row : kMembers) {
    const auto text = reader.StringMember(row.member);
    section.facts.push_back(
        {row.key, row.label, text ? TextValue(*text) : Unknown("not told")});
  }
  return section;
}

Value LibraryVersion(uint32_t packed) {
  return TextValue(std::to_string(packed >> 16) + "." +
                   std::to_string(packed >> 8 & 0xFF) + "." +
                   std::to_string(packed & 0xFF));
}

Value VersionText(const std::string& path) {
  constexpr uint32_t kMost = 1 << 20;
  std::string text(4096, '\0');
  uint32_t status = 0;
  while ((status = ZuGetZubrantDylibVersion(
              path.c_str(), text.data(), static_cast<int32_t>(text.size()))) !=
         0) {
    // More than it was given is no version that anybody reads.
    if (status == ZU_MACHO_FAILED || status < text.size() || status > kMost) {
      return Unknown("none");
    }
    text.assign(status + 1, '\0');
  }
  text.resize(::strnlen(text.data(), text.size()));
  return text.empty() ? Unknown("none") : TextValue(text);
}

Section Versions(const std::string& path) {
  uint32_t versions[2] = {};
  const bool is_library =
      machoGetDylibInfo(path.c_str(), versions, sizeof versions) == 0;
  const auto version = [&](size_t index) {
    return is_library ? LibraryVersion(versions[index])
                      : Unknown("no Mach-O library");
  };
  return {"macho",
          "Mach-O",
          {{"version", "Library version", version(0)},
           {"compatibility", "Compatible with", version(1)},
           {"text", "Version text", VersionText(path)}}};
}

}  // namespace

Exit RunFile(const Options& options) {
  const std::string path(options.arguments[0]);
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return FailOnPath(path, errno);
  // Reading a pipe or device may take for ever, or do something.
  if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
    return Fail(Exit::kFailed, path, "neither a file nor a directory");
  }
  const FileDescriptor file(
      ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.valid()) return FailOnPath(path, errno);
  return Print(
      {FileItself(path, status), Signature(path), Bundle(path), Versions(path)},
      options);
}

}  // namespace zu::ctl
