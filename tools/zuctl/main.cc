// zuctl: talks to an agent's server, and asks the library about the machine,
// from a terminal or a script.
#include <getopt.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <string>

#include "ZuHelper.h"
#include "platform/os_version.h"
#include "text.h"
#include "zuctl.h"

namespace zu::ctl {
namespace {

constexpr Subcommand kSubcommands[] = {
    {"request", "st", 1, 2, "COMMAND [JSON|-|@FILE]",
     "Sends {\"CMD_\":\"COMMAND\"}, with the members of the JSON object given\n"
     "as an argument, on standard input (-) or in FILE, and prints the reply.\n"
     "--timeout is 30 unless given.\n",
     RunRequest},
    {"listen", "stn", 0, 0, "[--count N]",
     "Prints each broadcast on a line of its own: N of them, or until the\n"
     "server ends or --timeout has passed since the start.\n",
     RunListen},
    {"notify", "", 1, 1, "NAME",
     "Posts the system-wide notification NAME. No server is needed.\n",
     RunNotify},
    {"wait", "tn", 1, 1, "[--count N] NAME",
     "Waits until the notification NAME has come, or N times; posts that come\n"
     "close together may count as one. No server is needed.\n",
     RunWait},
    {"report", "jc", 0, SIZE_MAX, "[PATH...]",
     "Prints what the library knows of this machine: identity, security, the\n"
     "volumes of the PATHs (\"/\" and the home directory unless given), "
     "users,\n"
     "the agent, and the library's counters about zuctl itself. What cannot "
     "be\n"
     "found out is unknown (null), which is not \"no\"; root is told more.\n",
     RunReport},
    {"file", "jc", 1, 1, "PATH",
     "Prints hashes, signature, bundle and Mach-O versions of a file or "
     "bundle.\n"
     "Whether the signature is valid does not show in the exit status. May "
     "ask\n"
     "the network about certificates. The MD5 is the library's, on 64-bit "
     "words:\n"
     "no other tool gives the same.\n",
     RunFile},
    {"ps", "jc", 0, 0, "",
     "Prints identifier, kind of code (32 or 64 bits) and path of every "
     "process;\n"
     "\"-\" where the system does not tell.\n",
     RunProcesses},
    {"modules", "jc", 1, 1, "PID",
     "Prints the path of each executable image in a process, one a line.\n",
     RunModules},
};

constexpr char kOptionsHelp[] =
    "  --service NAME     the server's service name; the agent's unless given\n"
    "  --timeout SECONDS  how long to wait, such as 0.5\n"
    "  --json             JSON instead of a table, with plain numbers: bytes,\n"
    "                     seconds\n"
    "  --no-color         no colours; there are none without a terminal, nor\n"
    "                     when NO_COLOR is set\n"
    "  --help             this text; after a subcommand, that one's\n";

constexpr char kExitHelp[] =
    "Exit status:\n"
    "  0  done: the reply, whatever it says, or the broadcasts were printed;\n"
    "     the notification was posted, or came; the table was printed\n"
    "  1  something failed on this side, such as reading FILE\n"
    "  2  the command line or the JSON text is wrong; nothing was sent\n"
    "  3  no server is running\n"
    "  4  the server closed the connection: it ended, or it refused zuctl,\n"
    "     which must be signed by the vendor\n"
    "  5  --timeout passed\n"
    "  6  the server answered nothing\n"
    "  7  the server could be another user's and was not talked to\n"
    "  8  there is no such file or process\n"
    "  9  this user may not read the file or look into the process\n";

constexpr option kLongOptions[] = {{"service", required_argument, nullptr, 's'},
                                   {"timeout", required_argument, nullptr, 't'},
                                   {"count", required_argument, nullptr, 'n'},
                                   {"json", no_argument, nullptr, 'j'},
                                   {"no-color", no_argument, nullptr, 'c'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};

void PrintUsage(const Subcommand& subcommand) {
  std::printf("usage: zuctl %s [OPTION...]%s%s\n", subcommand.name,
              *subcommand.synopsis == '\0' ? "" : " ", subcommand.synopsis);
}

void PrintHelp(const Subcommand* only) {
  if (only != nullptr) {
    PrintUsage(*only);
    std::printf("\n%s", only->help);
  } else {
    for (const Subcommand& subcommand : kSubcommands) {
      PrintUsage(subcommand);
    }
    for (const Subcommand& subcommand : kSubcommands) {
      std::printf("\n%s\n%s", subcommand.name, subcommand.help);
    }
  }
  std::printf("\nOptions:\n%s\n%s", kOptionsHelp, kExitHelp);
}

const Subcommand* FindSubcommand(std::string_view name) {
  for (const Subcommand& subcommand : kSubcommands) {
    if (name == subcommand.name) return &subcommand;
  }
  return nullptr;
}

Exit WrongUsage(std::string_view what, std::string_view why) {
  return Fail(Exit::kUsage, what, std::string(why) + " (zuctl --help tells)");
}

bool ParseTimeout(const char* text, Options& options) {
  char* end = nullptr;
  const double milliseconds = std::ceil(std::strtod(text, &end) * 1000);
  if (end == text || *end != '\0' || !(milliseconds >= 0) ||
      milliseconds > std::numeric_limits<int32_t>::max()) {
    return false;
  }
  options.timeout_ms = static_cast<int32_t>(milliseconds);
  options.has_timeout = true;
  return true;
}

bool ParseCount(const char* text, Options& options) {
  char* end = nullptr;
  errno = 0;
  options.count = std::strtoull(text, &end, 10);
  return *text >= '0' && *text <= '9' && *end == '\0' && errno == 0 &&
         options.count != 0;
}

Exit Run(int argc, char** argv) {
  Options options;
  std::string used;
  bool help = false;
  int letter = 0;
  // getopt says itself what it does not know.
  while ((letter = ::getopt_long(argc, argv, "h", kLongOptions, nullptr)) !=
         -1) {
    bool valid = true;
    switch (letter) {
      case 's':
        options.service = optarg;
        break;
      case 't':
        valid = ParseTimeout(optarg, options);
        break;
      case 'n':
        valid = ParseCount(optarg, options);
        break;
      case 'j':
        options.json = true;
        break;
      case 'c':
        options.no_color = true;
        break;
      case 'h':
        help = true;
        continue;
      default:
        return Exit::kUsage;
    }
    if (!valid) return WrongUsage(optarg, "not a number that fits");
    used.push_back(static_cast<char>(letter));
  }

  const Subcommand* const subcommand =
      optind < argc ? FindSubcommand(argv[optind]) : nullptr;
  if (optind < argc && subcommand == nullptr) {
    return WrongUsage(argv[optind], "no such subcommand");
  }
  if (help) {
    PrintHelp(subcommand);
    return Exit::kDone;
  }
  if (subcommand == nullptr) return WrongUsage("zuctl", "what shall it do?");
  if (used.find_first_not_of(subcommand->options) != std::string::npos) {
    return WrongUsage(subcommand->name, "does not take one of these options");
  }
  options.arguments.assign(argv + optind + 1, argv + argc);
  if (options.arguments.size() < subcommand->min_arguments ||
      options.arguments.size() > subcommand->max_arguments) {
    return WrongUsage(subcommand->name, "too few or too many arguments");
  }
  return subcommand->run(options);
}

}  // namespace

Exit Fail(Exit exit, std::string_view what, std::string_view why) {
  std::fprintf(stderr, "zuctl: %s: %s\n", Printable(what).c_str(),
               Printable(why).c_str());
  return exit;
}

Exit FailOnPath(std::string_view path, int error) {
  const Exit exit = error == ENOENT || error == ENOTDIR ? Exit::kNotFound
                    : error == EACCES || error == EPERM ? Exit::kNotPermitted
                                                        : Exit::kFailed;
  return Fail(exit, path, std::strerror(error));
}

Exit Fail(std::string_view what, ZuClientStatus status) {
  const int error = errno;
  Exit exit = Exit::kFailed;
  std::string why = ZuClientStatusText(status);
  switch (status) {
    case ZU_CLIENT_NO_SERVER:
      exit = Exit::kNoServer;
      break;
    case ZU_CLIENT_DISCONNECTED:
    case ZU_CLIENT_PROTOCOL_ERROR:
      exit = Exit::kDisconnected;
      break;
    case ZU_CLIENT_TIMED_OUT:
      exit = Exit::kTimedOut;
      break;
    case ZU_CLIENT_NO_REPLY:
    case ZU_CLIENT_NO_DATA:
      exit = Exit::kNoAnswer;
      break;
    case ZU_CLIENT_UNTRUSTED_SERVER:
      exit = Exit::kUntrusted;
      break;
    case ZU_CLIENT_BAD_ARGUMENT:
      exit = Exit::kUsage;
      break;
    case ZU_CLIENT_SYSTEM_ERROR:
      why.append(" (").append(std::strerror(error)).append(")");
      break;
    default:
      break;
  }
  return Fail(exit, what, why);
}

Exit Connect(const Options& options, Client& client) {
  const ZuClientStatus status =
      client.Connect(options.service, options.timeout_ms);
  if (status == ZU_CLIENT_OK) return Exit::kDone;
  return Fail(options.service != nullptr ? options.service : "connect", status);
}

Exit PrintLine(std::string_view text) {
  const bool ended = !text.empty() && text.back() == '\n';
  std::fwrite(text.data(), 1, text.size(), stdout);
  if (!ended) std::fputc('\n', stdout);
  if (std::fflush(stdout) == 0) return Exit::kDone;
  return Fail(Exit::kFailed, "standard output", std::strerror(errno));
}

}  // namespace zu::ctl

// The library is linked without what happens when it is loaded and unloaded:
// the watchdog guards hosts, and any program that leaves takes the mark of the
// running agent with it. Only the version is wanted.
int main(int argc, char** argv) {
  const zu::platform::OsVersion version = zu::platform::ReadOsVersion();
  gOSVersion = version.major * 1000000 + version.minor * 1000 + version.patch;
  return static_cast<int>(zu::ctl::Run(argc, argv));
}
