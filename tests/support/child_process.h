// Scenarios that spend process-wide state, each in a process of its own.
#ifndef ZU_TESTS_SUPPORT_CHILD_PROCESS_H_
#define ZU_TESTS_SUPPORT_CHILD_PROCESS_H_

#include <optional>
#include <string>
#include <vector>

#include "tests/support/wait_until.h"

namespace zu::test {

// Something for a child process to run, whose result is its exit status. An
// expectation that fails in it makes the status 1. Define it at namespace
// scope, so that the child, which is this test program started again, has it:
//
//   const ChildScenario kStops("Stops", [](const Arguments&) {
//     ...
//     return 0;
//   });
//   TEST(Server, Stops) { EXPECT_EQ(RunInChild(kStops).status, 0); }
using Arguments = std::vector<std::string>;
struct ChildScenario {
  using Body = int (*)(const Arguments&);
  ChildScenario(const char* scenario_name, Body body);
  const char* name;
};

struct ChildResult {
  // Exit status; minus the number of the signal that ended it, which is SIGALRM
  // when the deadline did. A child that blocks it is left to CTest's.
  int status = 0;
  std::string output;  // Standard output and error together.
};

// Runs the scenario in the caller's test root, and waits for its end. `program`
// is this test program or a copy of it.
ChildResult RunInChild(const ChildScenario& scenario,
                       const Arguments& arguments = {},
                       const char* program = "/proc/self/exe");

// For the test main: runs the scenario that the command line names, if any.
std::optional<int> RunNamedScenario(int argc, char** argv);

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_CHILD_PROCESS_H_
