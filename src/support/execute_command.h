// Running a system tool and reading what it prints.
#ifndef ZU_SUPPORT_EXECUTE_COMMAND_H_
#define ZU_SUPPORT_EXECUTE_COMMAND_H_

#include <optional>
#include <string>
#include <vector>

namespace zu {

class ExecuteCommand {
 public:
  // Starts the program at the absolute path `launch_path`, without a shell, and
  // returns everything that it writes to its standard output. `arguments` come
  // behind the program's name and reach it unaltered; all else (standard input
  // and error, environment, working directory) it has from this process. Where
  // nothing is at that path, words that end it and begin with "-" come before
  // the arguments: "/bin/chmod -R" starts /bin/chmod.
  //
  // Blocks until nobody holds that output open any more, however long that
  // takes; a tool that closes it and lives on is not waited for. How the tool
  // ends is not told: one that prints and fails counts like any other.
  //
  // nullopt: no pipe could be made, the program could not be started or its
  // output not be read, which is logged, or that is not UTF-8, which is not. A
  // tool that prints nothing gives an empty string. Thread-safe.
  static std::optional<std::string> Run(
      const std::string& launch_path,
      const std::vector<std::string>& arguments);

  // Runs a tool and tells whether nothing came of it: no output, or no text at
  // all. For tools that talk only when they fail; one that could not be started
  // has not complained either, and hosts count on that being no failure.
  static bool RunsSilently(const std::string& launch_path,
                           const std::vector<std::string>& arguments);
};

}  // namespace zu

#endif  // ZU_SUPPORT_EXECUTE_COMMAND_H_
