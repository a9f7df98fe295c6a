// Clients that really run, checked as the server does it.
#include "platform/code_signing.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include "build_values.h"
#include "platform/linux/signing/status.h"
#include "support/file_descriptor.h"
#include "tests/support/paused_child.h"
#include "tests/support/test_authority.h"
#include "tests/support/test_root.h"
#include "tests/support/wait_until.h"

namespace zu::platform {
namespace {

namespace fs = std::filesystem;

const std::string kRule =
    std::string("anchor trusted and certificate leaf [subject.CN] = \"") +
    test::kDeveloperIdName + "\"";

// Whoever signed it.
int32_t Status(const CodeRef& code) {
  return CheckCodeValidity(*code, kDefaultFlags, nullptr);
}

constexpr char kClient[] = "/tmp/client";

// In a child's place: until there is a line in the pipe.
void RunClient() {
  ::execl(kClient, "sh", "-c", "read line </tmp/go; exec sleep 600", nullptr);
}

// Leaves a zombie.
void Kill(pid_t pid) {
  ::kill(pid, SIGKILL);
  siginfo_t info{};
  ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
}

class CodeSigningTest : public test::RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (IsSkipped()) return;
    authority_.WriteAnchors(ZU_ANCHORS_DIRECTORY);
    fs::copy_file("/bin/sh", kClient, fs::copy_options::overwrite_existing);
    test::SignExecutable(kClient, authority_.Issue());
    fs::remove("/tmp/go");
    ASSERT_EQ(::mkfifo("/tmp/go", 0600), 0);
  }

  // As the server asks; without a process, "no such code".
  static int32_t Check(const ProcessReference& process) {
    const RequirementRef requirement = CompileRequirement(kRule.c_str());
    const CodeRef code = CopyCodeOfProcess(process);
    if (!code) return kCodeSigningNoSuchCode;
    return CheckCodeValidity(*code, kDefaultFlags, requirement.get());
  }

  test::TestAuthority authority_;
};

TEST_F(CodeSigningTest, ChecksRunningPrograms) {
  const test::PausedChild client(RunClient);
  const FileDescriptor descriptor(
      static_cast<int>(::syscall(SYS_pidfd_open, client.pid(), 0)));
  ASSERT_TRUE(descriptor.valid());
  EXPECT_EQ(Check({client.pid(), descriptor.get()}), kCodeSigningSuccess);
  // The name may go, or come to mean something else; what runs does not.
  fs::remove(kClient);
  EXPECT_EQ(Check({client.pid()}), kCodeSigningSuccess);
  fs::copy_file("/bin/sh", kClient);
  EXPECT_EQ(Check({client.pid()}), kCodeSigningSuccess);
  const test::PausedChild other(RunClient);
  EXPECT_EQ(Check({other.pid()}), kCodeSigningUnsigned);
  Kill(client.pid());
  // The descriptor is what counts, not the number.
  EXPECT_EQ(Check({other.pid(), descriptor.get()}), kCodeSigningNoSuchCode);
  for (const int32_t pid : {0, -1, INT32_MAX, client.pid()}) {
    EXPECT_EQ(Check({pid}), kCodeSigningNoSuchCode) << pid;
  }
}

TEST_F(CodeSigningTest, SeesAProcessThatMovesOn) {
  const test::PausedChild program(RunClient);
  const CodeRef code = CopyCodeOfProcess({program.pid()});
  ASSERT_NE(code, nullptr);
  EXPECT_EQ(Status(code), kCodeSigningSuccess);
  std::ofstream("/tmp/go") << "\n";
  ASSERT_TRUE(test::WaitUntil([&] {
    return fs::read_symlink("/proc/" + std::to_string(program.pid()) +
                            "/exe") != kClient;
  }));
  EXPECT_EQ(Status(code), kCodeSigningGuestInvalid);
  Kill(program.pid());
  EXPECT_EQ(Status(code), kCodeSigningNoSuchCode);
}

}  // namespace
}  // namespace zu::platform
