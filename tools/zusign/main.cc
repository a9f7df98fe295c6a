// zusign: signs code of every kind, verifies and shows signatures.

#include <fcntl.h>
#include <getopt.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include "platform/code_signing.h"
#include "zusign.h"

namespace zu::sign {
namespace {

constexpr char kHelp[] =
    "Usage: zusign sign [OPTION]... --key KEY.pem --cert LEAF.pem PATH\n"
    "       zusign sign [OPTION]... --ad-hoc PATH\n"
    "       zusign verify [OPTION]... PATH\n"
    "       zusign show PATH\n"
    "       zusign [COMMAND] --help\n"
    "Signs code, verifies or shows its signature: an ELF file, a script, a\n"
    "Mach-O file or the directory of a bundle.\n";

constexpr char kExitCodes[] =
    "\n"
    "Exit status: 0 good; 1 the file is not validly signed or must not be\n"
    "signed; 2 wrong usage; 3 a file cannot be read or written, or a key or\n"
    "certificate cannot be used.\n";

constexpr char kSignHelp[] =
    "Usage: zusign sign [OPTION]... --key KEY.pem --cert LEAF.pem PATH\n"
    "       zusign sign [OPTION]... --ad-hoc PATH\n"
    "Signs an ELF file, a script, a Mach-O file or a bundle in place; it runs\n"
    "as before.\n"
    "\n"
    "  --key KEY.pem      the private key (its passphrase is asked for)\n"
    "  --cert LEAF.pem    its certificate, which must allow code signing;\n"
    "                     more certificates in the file join the chain\n"
    "  --chain CHAIN.pem  the certificates between that and the anchor\n"
    "  --identifier ID    signed name of the program; default: of a bundle,\n"
    "                     its own identifier; else the file's base name\n"
    "  --timestamp FROM   add a timestamp from a responder (http://...) or a\n"
    "                     file with a token or a responder's answer\n"
    "  --replace          sign anew what is signed already\n"
    "  --help             show this and exit\n"
    "\n"
    "For Mach-O files and bundles:\n"
    "  --ad-hoc           seal the code without a key\n"
    "  --hash NAME        sha1, sha256 (the default) or sha384; may be given\n"
    "                     several times, the first is what gets signed\n"
    "  --team ID          the team's identifier\n"
    "  --entitlements FILE  seal these entitlements (Mach-O, bundles)\n";

constexpr char kVerifyHelp[] =
    "Usage: zusign verify [OPTION]... PATH\n"
    "Checks a signature, with a chain of certificates to a trusted anchor.\n"
    "\n"
    "  --requirement TEXT  a rule that the signature must satisfy too, such "
    "as\n"
    "                      'certificate leaf [subject.OU] = \"TEAM\"'\n"
    "  --anchors DIR       trust the certificates in DIR instead of those in\n"
    "                      " ZU_ANCHORS_DIRECTORY
    "\n"
    "  --expiration        certificates must be in their time\n"
    "  --revocation        certificates must not be revoked; asks the network\n"
    "  --all-architectures  check every slice of a universal file, instead of\n"
    "                      the one that runs here\n"
    "  --no-resources      do not check a bundle's resources and nested code\n"
    "  --help              show this and exit\n";

constexpr char kShowHelp[] =
    "Usage: zusign show PATH\n"
    "Prints what a signature says, without checking it.\n"
    "\n"
    "  --help  show this and exit\n";

struct Command {
  const char* name;
  const char* help;
  const option* options;
  ExitCode (*run)(const Arguments&);
};

struct HashName {
  std::string_view name;
  platform::CodeHash hash;
};
constexpr HashName kHashNames[] = {
    {"sha1", platform::CodeHash::kSha1},
    {"sha256", platform::CodeHash::kSha256},
    {"sha384", platform::CodeHash::kSha384},
};

bool AddHash(std::string_view name, std::vector<platform::CodeHash>& hashes) {
  for (const HashName& row : kHashNames) {
    if (row.name != name) continue;
    hashes.push_back(row.hash);
    return true;
  }
  return false;
}

constexpr option kSignOptions[] = {
    {"key", required_argument, nullptr, 'k'},
    {"cert", required_argument, nullptr, 'c'},
    {"chain", required_argument, nullptr, 'n'},
    {"identifier", required_argument, nullptr, 'i'},
    {"timestamp", required_argument, nullptr, 't'},
    {"ad-hoc", no_argument, nullptr, 'd'},
    {"hash", required_argument, nullptr, 's'},
    {"team", required_argument, nullptr, 'm'},
    {"entitlements", required_argument, nullptr, 'e'},
    {"replace", no_argument, nullptr, 'p'},
    {"help", no_argument, nullptr, 'h'},
    {}};
constexpr option kVerifyOptions[] = {
    {"requirement", required_argument, nullptr, 'r'},
    {"anchors", required_argument, nullptr, 'a'},
    {"expiration", no_argument, nullptr, 'x'},
    {"revocation", no_argument, nullptr, 'v'},
    {"all-architectures", no_argument, nullptr, 'l'},
    {"no-resources", no_argument, nullptr, 'o'},
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
      case 't':
        arguments.timestamp = optarg;
        break;
      case 'd':
        arguments.ad_hoc = true;
        break;
      case 's':
        if (AddHash(optarg, arguments.hashes)) break;
        return Fail(kUsage, "--hash: %s is none of sha1, sha256, sha384",
                    optarg);
      case 'm':
        arguments.team = optarg;
        break;
      case 'e':
        arguments.entitlements = optarg;
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
      case 'x':
        arguments.consider_expiration = true;
        break;
      case 'v':
        arguments.check_revocation = true;
        break;
      case 'l':
        arguments.all_architectures = true;
        break;
      case 'o':
        arguments.no_resources = true;
        break;
      case 'h':
        std::printf("%s%s", command.help, kExitCodes);
        return kGood;
      default:  // getopt_long has said what is wrong.
        return kUsage;
    }
  }
  if (argc - optind != 1) {
    return Fail(kUsage, "%s takes one path; see zusign %s --help", command.name,
                command.name);
  }
  arguments.path = argv[optind];
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

ExitCode Fail(ExitCode code, const char* format, ...) {
  std::fputs("zusign: ", stderr);
  std::va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
  return code;
}

ExitCode CodeFor(int32_t status) {
  return status == platform::kCodeSigningNotVerifiable ? kSystem : kBadFile;
}

FileDescriptor OpenFile(const char* path) {
  return FileDescriptor(RetryOnInterrupt(
      [&] { return ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK); }));
}

}  // namespace zu::sign

int main(int argc, char** argv) { return zu::sign::Main(argc, argv); }
