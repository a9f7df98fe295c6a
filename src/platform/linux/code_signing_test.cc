// Clients that really run, checked as the server does it.
#include "platform/code_signing.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <openssl/evp.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include "build_values.h"
#include "platform/linux/signing/status.h"
#include "platform/pipe.h"
#include "tests/support/child_process.h"
#include "tests/support/test_authority.h"
#include "tests/support/test_root.h"

namespace zu::platform {
namespace {

namespace fs = std::filesystem;

const std::string kRule =
    std::string("anchor trusted and certificate leaf [subject.CN] = \"") +
    test::kDeveloperIdName + "\"";

// A program that runs until its standard input ends or it is told to go.
class RunningProgram {
 public:
  explicit RunningProgram(const std::string& path,
                          std::vector<const char*> arguments = {"program"})
      : input_(MakePipe()) {
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input_.read_end.get(), 0);
    EXPECT_EQ(::posix_spawn(&pid_, path.c_str(), &actions, nullptr,
                            const_cast<char**>(arguments.data()), environ),
              0);
    ::posix_spawn_file_actions_destroy(&actions);
  }
  ~RunningProgram() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  int32_t pid() const { return pid_; }

  void Say(const std::string& text) {
    EXPECT_EQ(::write(input_.write_end.get(), text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
  }
  // Leaves a zombie.
  void End() {
    ::kill(pid_, SIGKILL);
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
  }

 private:
  Pipe input_;
  pid_t pid_ = 0;
};

class CodeSigningTest : public test::RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (IsSkipped()) return;
    authority_.WriteAnchors(ZU_ANCHORS_DIRECTORY);
  }

  static std::string Copy(const char* program, const char* name) {
    std::string path = std::string("/tmp/") + name;
    fs::copy_file(program, path, fs::copy_options::overwrite_existing);
    return path;
  }
  std::string SignedCopy(const char* program, const char* name) const {
    std::string path = Copy(program, name);
    test::SignExecutable(path, authority_.Issue(), "com.example.client");
    return path;
  }

  // As the server asks; without a process, "no such code".
  static int32_t Check(const ProcessReference& process,
                       const std::string& rule = kRule) {
    const RequirementRef requirement = CompileRequirement(rule.c_str());
    EXPECT_NE(requirement, nullptr) << rule;
    const CodeRef code = CopyCodeOfProcess(process);
    if (!code) return kCodeSigningNoSuchCode;
    EXPECT_EQ(KindOf(*code), CodeKind::kDynamic);
    return CheckCodeValidity(*code, kDefaultFlags, requirement.get());
  }

  test::TestAuthority authority_;
};

TEST_F(CodeSigningTest, ChecksRunningPrograms) {
  const std::string path = SignedCopy("/bin/cat", "client");
  const RunningProgram client(path);
  EXPECT_EQ(Check({client.pid()}), kCodeSigningSuccess);
  EXPECT_EQ(Check({client.pid()}, "identifier \"com.example.client\""),
            kCodeSigningSuccess);
  EXPECT_EQ(Check({client.pid()}, "identifier \"com.example.other\""),
            kCodeSigningRequirementFailed);
  const FileDescriptor descriptor(
      static_cast<int>(::syscall(SYS_pidfd_open, client.pid(), 0)));
  ASSERT_TRUE(descriptor.valid());
  EXPECT_EQ(Check({client.pid(), descriptor.get()}), kCodeSigningSuccess);
  // The descriptor is what counts: this one names another process.
  const FileDescriptor other([&] {
    RunningProgram ended(path);
    const auto opened =
        static_cast<int>(::syscall(SYS_pidfd_open, ended.pid(), 0));
    ended.End();
    return opened;
  }());
  EXPECT_EQ(CopyCodeOfProcess({client.pid(), other.get()}), nullptr);

  // The name may go, or come to mean something else; what runs does not.
  fs::remove(path);
  EXPECT_EQ(Check({client.pid()}), kCodeSigningSuccess);
  Copy("/bin/cat", "client");
  EXPECT_EQ(Check({client.pid()}), kCodeSigningSuccess);
  EXPECT_EQ(Check({RunningProgram(path).pid()}), kCodeSigningUnsigned);

  fs::remove_all(ZU_ANCHORS_DIRECTORY);
  EXPECT_EQ(Check({client.pid()}), kCertificateNotTrusted);
}

TEST_F(CodeSigningTest, RefusesWhatIsNotARunningProgram) {
  const std::string path = SignedCopy("/bin/cat", "client");
  std::ofstream("/tmp/script") << "#!/bin/sh\nread line\n";
  fs::permissions("/tmp/script", fs::perms(0755));
  RunningProgram ended(path);
  ended.End();
  const struct {
    const char* name;
    int32_t pid;
    int32_t status;
  } cases[] = {
      {"none", 0, kCodeSigningNoSuchCode},
      {"group", -1, kCodeSigningNoSuchCode},
      {"beyond the limit", INT32_MAX, kCodeSigningNoSuchCode},
      {"zombie", ended.pid(), kCodeSigningNoSuchCode},
      {"unsigned", ::getpid(), kCodeSigningUnsigned},
  };
  for (const auto& c : cases) EXPECT_EQ(Check({c.pid}), c.status) << c.name;
  // What a script's process runs is its interpreter.
  const RunningProgram script("/tmp/script");
  EXPECT_EQ(Check({script.pid()}), kCodeSigningUnsigned);
}

TEST_F(CodeSigningTest, SeesAProcessThatMovesOn) {
  const std::string client = SignedCopy("/bin/sh", "client");
  RunningProgram program(client, {"sh", "-c", "read line; exec cat"});
  const CodeRef code = CopyCodeOfProcess({program.pid()});
  ASSERT_NE(code, nullptr);
  EXPECT_EQ(CheckCodeValidity(*code, kDefaultFlags, nullptr),
            kCodeSigningSuccess);
  program.Say("\n");
  ASSERT_TRUE(test::WaitUntil([&] {
    return fs::read_symlink("/proc/" + std::to_string(program.pid()) +
                            "/exe") != client;
  }));
  EXPECT_EQ(CheckCodeValidity(*code, kDefaultFlags, nullptr),
            kCodeSigningGuestInvalid);
  program.End();
  EXPECT_EQ(CheckCodeValidity(*code, kDefaultFlags, nullptr),
            kCodeSigningNoSuchCode);
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
  EXPECT_EQ(::syscall(SYS_pidfd_open, ::getpid(), 0), -1);

  RunningProgram client("/tmp/client");
  const CodeRef code_of_client = CopyCodeOfProcess({client.pid()});
  EXPECT_NE(code_of_client, nullptr);
  if (code_of_client == nullptr) return 1;
  EXPECT_EQ(CheckCodeValidity(*code_of_client, kDefaultFlags, nullptr),
            kCodeSigningSuccess);
  EXPECT_EQ(CopyCodeOfProcess({INT32_MAX}), nullptr);
  client.End();
  EXPECT_NE(CheckCodeValidity(*code_of_client, kDefaultFlags, nullptr),
            kCodeSigningSuccess);
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
      EXPECT_NE(code, nullptr);
      EXPECT_EQ(CheckCodeValidity(*code, kDefaultFlags, nullptr),
                kCodeSigningSuccess);
      return 0;
    });

TEST_F(CodeSigningTest, WorksOnOldKernels) {
  SignedCopy("/bin/cat", "client");
  const test::ChildResult result = RunInChild(kOldKernel);
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST_F(CodeSigningTest, IgnoresTheHostsConfiguration) {
  SignedCopy("/bin/cat", "client");
  std::ofstream("/tmp/openssl.cnf") << "openssl_conf = init\n"
                                       "[init]\nproviders = providers\n"
                                       "[providers]\nbase = base\n"
                                       "[base]\nactivate = 1\n";
  ::setenv("OPENSSL_CONF", "/tmp/openssl.cnf", 1);
  const test::ChildResult result = RunInChild(kHostConfiguration);
  ::unsetenv("OPENSSL_CONF");
  EXPECT_EQ(result.status, 0) << result.output;
}

}  // namespace
}  // namespace zu::platform
