#include "tests/support/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <map>
#include <stdexcept>

#include "support/file_descriptor.h"

extern char** environ;

namespace zu::test {
namespace {

constexpr char kOption[] = "--zu_child";

std::map<std::string, ChildScenario::Body>& Scenarios() {
  static std::map<std::string, ChildScenario::Body> scenarios;
  return scenarios;
}

pid_t Spawn(const char* program, const std::string& name,
            const Arguments& arguments, int output) {
  std::vector<const char*> argv = {program, kOption, name.c_str()};
  for (const std::string& argument : arguments) {
    argv.push_back(argument.c_str());
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
  pid_t child = -1;
  const int error =
      ::posix_spawn(&child, argv[0], &actions, nullptr,
                    const_cast<char* const*>(argv.data()), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start the test program");
  return child;
}

// What is in the pipe, without waiting for more.
void Drain(const FileDescriptor& pipe, std::string& text) {
  char block[4096];
  for (ssize_t count; (count = RetryOnInterrupt([&] {
                         return ::read(pipe.get(), block, sizeof block);
                       })) > 0;) {
    text.append(block, static_cast<size_t>(count));
  }
}

}  // namespace

ChildScenario::ChildScenario(const char* scenario_name, Body body)
    : name(scenario_name) {
  Scenarios()[name] = body;
}

ChildResult RunInChild(const ChildScenario& scenario,
                       const Arguments& arguments,
                       std::chrono::milliseconds deadline,
                       const char* program) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::runtime_error("no pipe");
  }
  const FileDescriptor source(ends[0]);
  FileDescriptor sink(ends[1]);
  ::fcntl(sink.get(), F_SETFL, 0);  // Blocking, for the child.
  const pid_t child = Spawn(program, scenario.name, arguments, sink.get());
  sink.reset();
  const FileDescriptor process(
      static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));

  // The child's end counts, not the pipe's: what it started may live on.
  ChildResult result;
  const auto end = std::chrono::steady_clock::now() + deadline;
  pollfd waits[] = {{process.get(), POLLIN, 0}, {source.get(), POLLIN, 0}};
  while (waits[0].revents == 0) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      ::kill(child, SIGKILL);
      result.output += "[deadline passed]\n";
      break;
    }
    if (::poll(waits, 2, static_cast<int>(left.count())) < 0) continue;
    Drain(source, result.output);
    if ((waits[1].revents & POLLHUP) != 0) waits[1].fd = -1;
  }
  int status = 0;
  RetryOnInterrupt([&] { return ::waitpid(child, &status, 0); });
  Drain(source, result.output);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  return result;
}

std::optional<int> RunNamedScenario(int argc, char** argv) {
  if (argc < 3 || std::string_view(argv[1]) != kOption) return std::nullopt;
  const int status = Scenarios().at(argv[2])(Arguments(argv + 3, argv + argc));
  return ::testing::UnitTest::GetInstance()->Failed() ? 1 : status;
}

}  // namespace zu::test
