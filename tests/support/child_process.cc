#include "tests/support/child_process.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <map>
#include <stdexcept>

#include "support/file_descriptor.h"
#include "tests/support/fake_tool.h"

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
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("cannot start the test program");
  if (child == 0) {
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    ::alarm(3 * kDeadline.count());
    ::execv(program, const_cast<char* const*>(argv.data()));
    ::_exit(127);
  }
  return child;
}

}  // namespace

ChildScenario::ChildScenario(const char* scenario_name, Body body)
    : name(scenario_name) {
  Scenarios()[name] = body;
}

ChildResult RunInChild(const ChildScenario& scenario,
                       const Arguments& arguments, const char* program) {
  // In memory, because what the child started may live on and hold it open.
  const FileDescriptor output(::memfd_create("output", MFD_CLOEXEC));
  const pid_t child = Spawn(program, scenario.name, arguments, output.get());
  int status = 0;
  RetryOnInterrupt([&] { return ::waitpid(child, &status, 0); });
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status),
          ReadFile("/proc/self/fd/" + std::to_string(output.get()))};
}

std::optional<int> RunNamedScenario(int argc, char** argv) {
  if (argc < 3 || std::string_view(argv[1]) != kOption) return std::nullopt;
  const int status = Scenarios().at(argv[2])(Arguments(argv + 3, argv + argc));
  return ::testing::UnitTest::GetInstance()->Failed() ? 1 : status;
}

}  // namespace zu::test
