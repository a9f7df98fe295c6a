// What zuctl's subcommands share.
#ifndef ZU_TOOLS_ZUCTL_ZUCTL_H_
#define ZU_TOOLS_ZUCTL_ZUCTL_H_

#include <cstdint>
#include <string_view>
#include <vector>

#include "zu_client.hpp"

namespace zu::ctl {

// What scripts see; kExitHelp in main.cc documents the numbers.
enum class Exit : int {
  kDone = 0,
  kFailed = 1,
  kUsage = 2,
  kNoServer = 3,
  kDisconnected = 4,
  kTimedOut = 5,
  kNoAnswer = 6,
  kUntrusted = 7,
  kNotFound = 8,
  kNotPermitted = 9,
};

struct Options {
  const char* service = nullptr;  // Null: the agent's.
  int32_t timeout_ms = -1;        // Negative: no deadline.
  bool has_timeout = false;
  uint64_t count = 0;  // 0: no end.
  bool json = false;
  bool no_color = false;
  std::vector<std::string_view> arguments;
};

struct Subcommand {
  const char* name;
  const char* options;   // Letters of those that it takes, besides "h".
  size_t min_arguments;  // How many words may follow the name.
  size_t max_arguments;
  const char* synopsis;  // What follows the name, for the usage line.
  const char* help;
  Exit (*run)(const Options& options);
};

Exit RunRequest(const Options& options);
Exit RunListen(const Options& options);
Exit RunNotify(const Options& options);
Exit RunWait(const Options& options);
Exit RunReport(const Options& options);
Exit RunFile(const Options& options);
Exit RunProcesses(const Options& options);
Exit RunModules(const Options& options);

// Says on standard error what went wrong, and gives the exit status for it.
Exit Fail(Exit exit, std::string_view what, std::string_view why);
Exit Fail(std::string_view what, ZuClientStatus status);

// The same for a path of which the system says `error`.
Exit FailOnPath(std::string_view path, int error);

// Connects as the options say; reports a failure as Fail does.
Exit Connect(const Options& options, Client& client);

// Writes `text` and a line's end (one, if it has none) to standard output.
Exit PrintLine(std::string_view text);

}  // namespace zu::ctl

#endif  // ZU_TOOLS_ZUCTL_ZUCTL_H_
