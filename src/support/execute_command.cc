#include "support/execute_command.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <memory>

#include "platform/pipe.h"
#include "support/file_descriptor.h"
#include "support/log.h"
#include "support/spawn.h"
#include "support/utf8.h"

namespace zu {
namespace {

constexpr char kMethod[] = "+[ExecuteCommand Run:argument:]";

// The names and reasons are those of the platform's task class, whatever
// started the tool: log readers look for them.
void LogException(const std::string& launch_path, const char* name,
                  const std::string& reason) {
  LogError("ZuHelperOSX.%s(): Exception caught trying to execute '%s', (%s:%s)",
           kMethod, launch_path.c_str(), name, reason.c_str());
}

struct Command {
  std::string path;
  std::vector<std::string> arguments;
};

// A launch path can have options behind the program ("/bin/chmod -R"). What
// exists under the whole text is meant as it stands.
Command SplitOptions(const std::string& launch_path,
                     const std::vector<std::string>& arguments) {
  Command command{launch_path, arguments};
  std::string& path = command.path;
  size_t space;
  while ((space = path.rfind(" -")) != path.npos &&
         ::access(path.c_str(), F_OK) != 0) {
    command.arguments.insert(command.arguments.begin(), path.substr(space + 1));
    path.resize(space);
  }
  return command;
}

int SpawnTool(const Command& command, FileDescriptor write_end, Child& child) {
  // Where a thread of the host closes its output at this moment, the pipe can
  // sit there already; not every system lets a child have it from there.
  if (write_end.get() == STDOUT_FILENO) {
    write_end.reset(::fcntl(write_end.get(), F_DUPFD_CLOEXEC, 3));
    if (!write_end.valid()) return errno;
  }
  return Spawn(command.path, command.arguments, {.output = write_end.get()},
               child);
}

// Appends what comes until nobody holds the other end. False, with errno set,
// when reading fails.
bool ReadToEnd(const FileDescriptor& source, std::string& text) {
  // One large buffer that nothing clears beforehand: resizing the string for
  // each read costs more than the copy.
  constexpr size_t kBlock = 256 * 1024;
  const auto block = std::make_unique_for_overwrite<char[]>(kBlock);
  ssize_t count;
  while ((count = RetryOnInterrupt(
              [&] { return ::read(source.get(), block.get(), kBlock); })) > 0) {
    text.append(block.get(), static_cast<size_t>(count));
  }
  return count == 0;
}

}  // namespace

std::optional<std::string> ExecuteCommand::Run(
    const std::string& launch_path, const std::vector<std::string>& arguments) {
  platform::Pipe pipe = platform::MakePipe();
  // Descriptor 0, which a host without standard input gets, counts as bad too:
  // that is the rule of old, and hosts see its log line.
  if (pipe.read_end.get() <= 0) {
    LogError("ZuHelperOSX.%s(): Bad file handle from pipe", kMethod);
    return std::nullopt;
  }
  const Command command = SplitOptions(launch_path, arguments);
  Child child;
  const int error = SpawnTool(command, std::move(pipe.write_end), child);
  if (error != 0) {
    LogException(launch_path, "NSInvalidArgumentException",
                 IsLaunchable(command.path)
                     ? "Couldn't posix_spawn: error " + std::to_string(error)
                     : "launch path not accessible");
    return std::nullopt;
  }
  std::string output;
  if (!ReadToEnd(pipe.read_end, output)) {
    LogException(launch_path, "NSFileHandleOperationException",
                 "read: error " + std::to_string(errno));
    return std::nullopt;
  }
  if (!IsValidUtf8(output)) return std::nullopt;
  return output;
}

bool ExecuteCommand::RunsSilently(const std::string& launch_path,
                                  const std::vector<std::string>& arguments) {
  const std::optional<std::string> output = Run(launch_path, arguments);
  return !output || output->empty();
}

}  // namespace zu
