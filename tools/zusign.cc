// zusign: signs ELF executables, verifies and shows their signatures.

#include <fcntl.h>
#include <getopt.h>
#include <openssl/pem.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "build_values.h"
#include "platform/code_signing.h"
#include "platform/linux/signing/trust/certificates.h"
#include "platform/linux/signing/requirement.h"
#include "platform/linux/signing/signer/signer.h"
#include "platform/linux/signing/status.h"
#include "platform/linux/signing/verifier.h"
#include "support/file_descriptor.h"

namespace zu {
namespace {

using platform::Verifier;

enum ExitCode {
  kGood = 0,
  kBadFile = 1,  // Not validly signed; or not to be signed.
  kUsage = 2,
  kSystem = 3,
};

constexpr char kHelp[] =
    "Usage: zusign sign [OPTION]... --key KEY.pem --cert LEAF.pem FILE\n"
    "       zusign verify [OPTION]... FILE\n"
    "       zusign show FILE\n"
    "       zusign [COMMAND] --help\n"
    "Signs an ELF executable, verifies or shows its signature.\n";

constexpr char kExitCodes[] =
    "\n"
    "Exit status: 0 good; 1 the file is not validly signed or must not be\n"
    "signed; 2 wrong usage; 3 a file cannot be read or written, or a key or\n"
    "certificate cannot be used.\n";

constexpr char kSignHelp[] =
    "Usage: zusign sign [OPTION]... --key KEY.pem --cert LEAF.pem FILE\n"
    "Signs an ELF executable in place; it runs as before.\n"
    "\n"
    "  --key KEY.pem      the private key (its passphrase is asked for)\n"
    "  --cert LEAF.pem    its certificate, which must allow code signing;\n"
    "                     more certificates in the file join the chain\n"
    "  --chain CHAIN.pem  the certificates between that and the anchor\n"
    "  --identifier ID    signed name of the program; default: the file's\n"
    "                     base name\n"
    "  --replace          sign anew what is signed already\n"
    "  --help             show this and exit\n";

constexpr char kVerifyHelp[] =
    "Usage: zusign verify [OPTION]... FILE\n"
    "Checks a signature, with a chain of certificates to a trusted anchor.\n"
    "\n"
    "  --requirement TEXT  a rule that the signature must satisfy too, such "
    "as\n"
    "                      'certificate leaf [subject.OU] = \"TEAM\"'\n"
    "  --anchors DIR       trust the certificates in DIR instead of those in\n"
    "                      " ZU_ANCHORS_DIRECTORY
    "\n"
    "  --help              show this and exit\n";

constexpr char kShowHelp[] =
    "Usage: zusign show FILE\n"
    "Prints what a signature says, without checking it.\n"
    "\n"
    "  --help  show this and exit\n";

[[gnu::format(printf, 2, 3)]] ExitCode Fail(ExitCode code, const char* format,
                                            ...) {
  std::fputs("zusign: ", stderr);
  std::va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
  return code;
}

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

std::optional<std::string> ReadText(const char* path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::string text(std::istreambuf_iterator<char>(file), {});
  if (file.bad()) return std::nullopt;
  return text;
}

FileDescriptor OpenFile(const char* path) {
  return FileDescriptor(RetryOnInterrupt(
      [&] { return ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK); }));
}

struct Arguments {
  const char* key = nullptr;
  const char* cert = nullptr;
  const char* chain = nullptr;
  const char* identifier = "";
  const char* requirement = nullptr;
  const char* anchors = ZU_ANCHORS_DIRECTORY;
  bool replace = false;
  const char* file = nullptr;
};

ExitCode Sign(const Arguments& arguments) {
  if (arguments.key == nullptr || arguments.cert == nullptr) {
    return Fail(kUsage, "sign needs --key and --cert");
  }
  std::string texts[3];
  const char* const paths[3] = {arguments.key, arguments.cert, arguments.chain};
  for (size_t i = 0; i < std::size(paths); ++i) {
    if (paths[i] == nullptr) continue;
    std::optional<std::string> text = ReadText(paths[i]);
    if (!text) return Fail(kSystem, "%s: cannot be read", paths[i]);
    texts[i] = *std::move(text);
  }
  std::string error;
  const auto identity = platform::SigningIdentity::FromPem(
      texts[0], texts[1] + "\n" + texts[2], error);
  if (!identity) return Fail(kSystem, "%s", error.c_str());
  if (!platform::MaySignCode(*identity->leaf)) {
    return Fail(kSystem,
                "%s: the certificate is not for signing code (extended key "
                "usage codeSigning, key usage digitalSignature)",
                arguments.cert);
  }
  switch (platform::SignFile(
      arguments.file, *identity,
      {.identifier = arguments.identifier, .replace = arguments.replace},
      error)) {
    case platform::SignResult::kSigned:
      return kGood;
    case platform::SignResult::kRefused:
      return Fail(kBadFile, "%s", error.c_str());
    case platform::SignResult::kFailed:
      break;
  }
  return Fail(kSystem, "%s", error.c_str());
}

ExitCode CodeFor(int32_t status) {
  return status == platform::kCodeSigningNotVerifiable ? kSystem : kBadFile;
}

ExitCode Verify(const Arguments& arguments) {
  std::optional<platform::Expression> rule;
  if (arguments.requirement != nullptr) {
    rule = platform::ParseRequirement(arguments.requirement);
    if (!rule) return Fail(kUsage, "the requirement cannot be understood");
  }
  const FileDescriptor file = OpenFile(arguments.file);
  if (!file.valid()) {
    return Fail(kSystem, "%s: %s", arguments.file, std::strerror(errno));
  }
  const auto verifier = Verifier::Create(arguments.anchors);
  if (!verifier) return Fail(kSystem, "libcrypto cannot be initialized");
  const platform::Verification result = verifier->Verify(file.get(), {});
  if (result.status != platform::kCodeSigningSuccess) {
    return Fail(CodeFor(result.status), "%s: %s (%d)", arguments.file,
                result.reason, result.status);
  }
  if (rule && !platform::Satisfies(result.facts, *rule)) {
    return Fail(kBadFile, "%s: does not satisfy the requirement (%d)",
                arguments.file, platform::kCodeSigningRequirementFailed);
  }
  std::printf("%s: valid\n", arguments.file);
  return kGood;
}

void PrintTime(const char* label, const ASN1_TIME* time) {
  std::tm fields{};
  char text[32] = "?";
  if (ASN1_TIME_to_tm(time, &fields) == 1) {
    std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &fields);
  }
  std::printf("  %s %s\n", label, text);
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

ExitCode Show(const Arguments& arguments) {
  const FileDescriptor file = OpenFile(arguments.file);
  if (!file.valid()) {
    return Fail(kSystem, "%s: %s", arguments.file, std::strerror(errno));
  }
  const auto verifier = Verifier::Create(arguments.anchors);
  if (!verifier) return Fail(kSystem, "libcrypto cannot be initialized");
  const platform::FoundSignature found = verifier->FindSignature(file.get());
  if (found.status != platform::kCodeSigningSuccess) {
    return Fail(CodeFor(found.status), "%s: %s (%d)", arguments.file,
                found.reason, found.status);
  }
  const platform::CmsSignature& signature = found.signature;
  std::printf("%s: signed (not checked)\n", arguments.file);
  if (signature.identifier()) {
    std::printf("Identifier: %s\n", Printable(*signature.identifier()).c_str());
  }
  if (const auto time = signature.signing_time()) {
    const std::time_t seconds = *time;
    char text[32] = "?";
    std::tm fields{};
    if (::gmtime_r(&seconds, &fields) != nullptr) {
      std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &fields);
    }
    std::printf("Signed, as the signer claims: %s\n", text);
  }
  std::printf("Content: %llu bytes, %s\n",
              static_cast<unsigned long long>(found.content_size),
              EVP_MD_get0_name(&signature.digest()));
  int index = 0;
  for (const platform::CertificatePtr& certificate : signature.certificates()) {
    std::printf("Certificate %d:\n", index++);
    PrintName("  Subject:", X509_get_subject_name(certificate.get()));
    PrintName("  Issuer: ", X509_get_issuer_name(certificate.get()));
    PrintTime("From:   ", X509_get0_notBefore(certificate.get()));
    PrintTime("Until:  ", X509_get0_notAfter(certificate.get()));
  }
  return kGood;
}

struct Command {
  const char* name;
  const char* help;
  const option* options;
  ExitCode (*run)(const Arguments&);
};

constexpr option kSignOptions[] = {
    {"key", required_argument, nullptr, 'k'},
    {"cert", required_argument, nullptr, 'c'},
    {"chain", required_argument, nullptr, 'n'},
    {"identifier", required_argument, nullptr, 'i'},
    {"replace", no_argument, nullptr, 'p'},
    {"help", no_argument, nullptr, 'h'},
    {}};
constexpr option kVerifyOptions[] = {
    {"requirement", required_argument, nullptr, 'r'},
    {"anchors", required_argument, nullptr, 'a'},
    {"help", no_argument, nullptr, 'h'},
    {}};
constexpr option kShowOptions[] = {{"help", no_argument, nullptr, 'h'}, {}};

constexpr Command kCommands[] = {
    {"sign", kSignHelp, kSignOptions, &Sign},
    {"verify", kVerifyHelp, kVerifyOptions, &Verify},
    {"show", kShowHelp, kShowOptions, &Show},
};

ExitCode Run(const Command& command, int argc, char** argv) {
  Arguments arguments;
  optind = 2;  // Behind the command.
  int choice = 0;
  while ((choice = ::getopt_long(argc, argv, "h", command.options, nullptr)) !=
         -1) {
    switch (choice) {
      case 'k':
        arguments.key = optarg;
        break;
      case 'c':
        arguments.cert = optarg;
        break;
      case 'n':
        arguments.chain = optarg;
        break;
      case 'i':
        arguments.identifier = optarg;
        break;
      case 'p':
        arguments.replace = true;
        break;
      case 'r':
        arguments.requirement = optarg;
        break;
      case 'a':
        arguments.anchors = optarg;
        break;
      case 'h':
        std::printf("%s%s", command.help, kExitCodes);
        return kGood;
      default:  // getopt_long has said what is wrong.
        return kUsage;
    }
  }
  if (argc - optind != 1) {
    return Fail(kUsage, "%s takes one file; see zusign %s --help", command.name,
                command.name);
  }
  arguments.file = argv[optind];
  return command.run(arguments);
}

ExitCode Main(int argc, char** argv) {
  const std::string_view name = argc < 2 ? "" : argv[1];
  if (name == "--help" || name == "-h") {
    std::printf("%s%s", kHelp, kExitCodes);
    return kGood;
  }
  for (const Command& command : kCommands) {
    if (name != command.name) continue;
    const ExitCode code = Run(command, argc, argv);
    // What a pipe or a disk did not take is not there.
    if (std::fflush(stdout) != 0 && code == kGood) {
      return Fail(kSystem, "standard output: %s", std::strerror(errno));
    }
    return code;
  }
  std::fputs(kHelp, stderr);
  return kUsage;
}

}  // namespace
}  // namespace zu

int main(int argc, char** argv) { return zu::Main(argc, argv); }
