// Tests of the server run in a copy of the test program that the vendor signed,
// so that the process may be the server's client as well as its host.
#ifndef ZU_TESTS_SERVER_SIGNED_TEST_H_
#define ZU_TESTS_SERVER_SIGNED_TEST_H_

#include <string>

#include "ZuHelper.h"
#include "build_values.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_authority.h"
#include "tests/support/test_root.h"

namespace zu::test {

inline constexpr char kSignedProgram[] = "/tmp/signed_program";
inline constexpr char kStrangersProgram[] = "/tmp/strangers_program";

class SignedTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (IsSkipped() || std::filesystem::exists(kSignedProgram)) return;
    const TestAuthority vendor;
    const TestAuthority stranger("Somebody Else");
    vendor.WriteAnchors(ZU_ANCHORS_DIRECTORY);
    for (const char* program : {kSignedProgram, kStrangersProgram}) {
      std::filesystem::copy_file("/proc/self/exe", program);
    }
    SignExecutable(kSignedProgram, vendor.Issue());
    SignExecutable(kStrangersProgram, stranger.Issue());
  }

  // Runs the scenario in the signed program and expects that it succeeds.
  static void Expect(const ChildScenario& scenario,
                     const Arguments& arguments = {}) {
    const ChildResult result = RunInChild(scenario, arguments, kSignedProgram);
    EXPECT_EQ(result.status, 0) << result.output;
  }
};

}  // namespace zu::test

#endif  // ZU_TESTS_SERVER_SIGNED_TEST_H_
