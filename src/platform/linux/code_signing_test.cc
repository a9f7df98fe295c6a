// Clients that really run, checked as the server does it.
#include "platform/code_signing.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <openssl/evp.h>
#include <spawn.h>
#include <sys/prctl.h>
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
#include "tests/support/child_process.h"
#include "tests/support/test_authority.h"
#include "tests/support/test_root.h"

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

// A program that runs until it is told to go.
class RunningProgram {
 public:
  explicit RunningProgram(const std::string& path,
                          std::vector<const char*> arguments = {"sleep",
                                                                "600"}) {
    arguments.push_back(nullptr);
    EXPECT_EQ(::posix_spawn(&pid_, path.c_str(), nullptr, nullptr,
                            const_cast<char**>(arguments.data()), environ),
              0);
  }
  ~RunningProgram() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  int32_t pid() const { return pid_; }
  // Leaves a zombie.
  void End() {
    ::kill(pid_, SIGKILL);
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
  }

 private:
  pid_t pid_ = 0;
};

class CodeSigningTest : public test::RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (!IsSkipped()) authority_.WriteAnchors(ZU_ANCHORS_DIRECTORY);
  }

  std::string SignedCopy(const char* program) const {
    const std::string path = "/tmp/client";
    fs::copy_file(program, path, fs::copy_options::overwrite_existing);
    test::SignExecutable(path, authority_.Issue(), "com.example.client");
    return path;
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
  const std::string path = SignedCopy("/bin/sleep");
  const RunningProgram client(path);
  const FileDescriptor descriptor(
      static_cast<int>(::syscall(SYS_pidfd_open, client.pid(), 0)));
  ASSERT_TRUE(descriptor.valid());
  EXPECT_EQ(Check({client.pid(), descriptor.get()}), kCodeSigningSuccess);
  // The name may go, or come to mean something else; what runs does not.
  fs::remove(path);
  EXPECT_EQ(Check({client.pid()}), kCodeSigningSuccess);
  fs::copy_file("/bin/sleep", path);
  EXPECT_EQ(Check({client.pid()}), kCodeSigningSuccess);
  EXPECT_EQ(Check({RunningProgram(path).pid()}), kCodeSigningUnsigned);
}

TEST_F(CodeSigningTest, RefusesWhatIsNotARunningProgram) {
  RunningProgram ended(SignedCopy("/bin/sleep"));
  const FileDescriptor of_ended(
      static_cast<int>(::syscall(SYS_pidfd_open, ended.pid(), 0)));
  ended.End();
  // The descriptor is what counts, not the number.
  EXPECT_EQ(CopyCodeOfProcess({::getpid(), of_ended.get()}), nullptr);
  for (const int32_t pid : {0, -1, INT32_MAX, ended.pid()}) {
    EXPECT_EQ(Check({pid}), kCodeSigningNoSuchCode) << pid;
  }
}

TEST_F(CodeSigningTest, SeesAProcessThatMovesOn) {
  const std::string client = SignedCopy("/bin/sh");
  ASSERT_EQ(::mkfifo("/tmp/go", 0600), 0);
  RunningProgram program(client,
                         {"sh", "-c", "read line </tmp/go; exec sleep 600"});
  const CodeRef code = CopyCodeOfProcess({program.pid()});
  ASSERT_NE(code, nullptr);
  EXPECT_EQ(Status(code), kCodeSigningSuccess);
  std::ofstream("/tmp/go") << "\n";
  ASSERT_TRUE(test::WaitUntil([&] {
    return fs::read_symlink("/proc/" + std::to_string(program.pid()) +
                            "/exe") != client;
  }));
  EXPECT_EQ(Status(code), kCodeSigningGuestInvalid);
  program.End();
  EXPECT_EQ(Status(code), kCodeSigningNoSuchCode);
}

// Kernels before 5.3: the call is taken away from the calling process for good.
const test::ChildScenario kOldKernel("OldKernel", [](const test::Arguments&) {
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pidfd_open, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program{std::size(code), code};
  EXPECT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  EXPECT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
  RunningProgram client("/tmp/client");
  const CodeRef code_of_client = CopyCodeOfProcess({client.pid()});
  if (code_of_client == nullptr) return 2;
  EXPECT_EQ(Status(code_of_client), kCodeSigningSuccess);
  EXPECT_EQ(CopyCodeOfProcess({INT32_MAX}), nullptr);
  client.End();
  EXPECT_NE(Status(code_of_client), kCodeSigningSuccess);
  return 0;
});

// A host whose configuration leaves its own libcrypto without any digest.
const test::ChildScenario kHostConfiguration(
    "HostConfiguration", [](const test::Arguments&) {
      EXPECT_EQ(OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr), 1);
      EVP_MD* const digest = EVP_MD_fetch(nullptr, "SHA2-256", nullptr);
      EXPECT_EQ(digest, nullptr) << "the configuration did not take effect";
      EVP_MD_free(digest);
      const RunningProgram client("/tmp/client");
      const CodeRef code = CopyCodeOfProcess({client.pid()});
      if (code == nullptr) return 2;
      EXPECT_EQ(Status(code), kCodeSigningSuccess);
      return 0;
    });

TEST_F(CodeSigningTest, WorksOnOldKernelsAndInOddHosts) {
  SignedCopy("/bin/sleep");
  const test::ChildResult old = RunInChild(kOldKernel);
  EXPECT_EQ(old.status, 0) << old.output;
  std::ofstream("/tmp/openssl.cnf") << "openssl_conf = init\n"
                                       "[init]\nproviders = providers\n"
                                       "[providers]\nbase = base\n"
                                       "[base]\nactivate = 1\n";
  ::setenv("OPENSSL_CONF", "/tmp/openssl.cnf", 1);
  const test::ChildResult odd = RunInChild(kHostConfiguration);
  ::unsetenv("OPENSSL_CONF");
  EXPECT_EQ(odd.status, 0) << odd.output;
}

}  // namespace
}  // namespace zu::platform
