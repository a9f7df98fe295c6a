// Kernel settings: restrictions, on what the tool in its place prints, and the
// logging switch, on a file in the kernel's place.

#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace {

using zu::test::Arguments;
using zu::test::ReadFile;
using zu::test::RecordingTool;
using zu::test::WriteFile;

constexpr uint32_t kUntouched = 0xABCD;
constexpr char kSetting[] = "/proc/sys/vm/shared_region_unnest_logging";

class KernelTest : public zu::test::RootedTest {};

TEST_F(KernelTest, ReadsRestrictionsByLine) {
  const std::string five =
      "\tApple Internal: disabled\n\tKext Signing: disabled\n"
      "\tFilesystem Protections: disabled\n"
      "\tDebugging Restrictions: disabled\n\tDTrace Restrictions: disabled\n";
  const struct {
    std::string output;
    uint32_t flags;
  } kCases[] = {
      {"Kext Signing: disabled\nFilesystem Protections: enabled\n", 1},
      {"disabled: Debugging Restrictions, DTrace Restrictions", 40},
      {five, 59},
      {five + "\tNVRAM Protections: disabled\n", 127},
      {"System Integrity Protection status: disabled.\n", 0},
      {"Kext signing: disabled\nKext Signing: Disabled\n", 0},
      {"Kext Signing\rdisabled\vKext Signing\u2028disabled\n", 0},
      {"Kext Signing\u2027disabled", 1},
      {"", kUntouched},
      {"\xFF Kext Signing: disabled\n", kUntouched},
  };
  const uint32_t loaded = gOSVersion;
  for (const auto& c : kCases) {
    const RecordingTool tool("/usr/bin/csrutil", c.output);
    uint32_t flags = kUntouched;
    gOSVersion = 10010999;
    EXPECT_EQ(ZuGetRootlessConfig(&flags), -1);
    gOSVersion = 10011000;
    EXPECT_EQ(ZuGetRootlessConfig(nullptr), -1);
    EXPECT_TRUE(tool.Calls().empty() && flags == kUntouched);
    EXPECT_EQ(ZuGetRootlessConfig(&flags), c.flags == kUntouched ? EIO : 0);
    EXPECT_EQ(flags, c.flags) << c.output;
    ASSERT_EQ(tool.Calls().size(), 1u);
    EXPECT_EQ(tool.Calls()[0].arguments, Arguments{"status"});
  }
  gOSVersion = loaded;
}

class UnnestLoggingTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped()) return;
    ASSERT_EQ(::mount("tmpfs", "/proc/sys/vm", "tmpfs", 0, nullptr), 0);
  }
  void TearDown() override { ::umount2("/proc/sys/vm", MNT_DETACH); }
};

TEST_F(UnnestLoggingTest, IsOneNumber) {
  const struct {
    const char* text;
    int error;
    uint32_t value;
  } kCases[] = {{"4294967295\n", 0, 4294967295},
                {"4294967296\n", ERANGE, kUntouched},
                {"1\t2\n", EINVAL, kUntouched},
                {"", EINVAL, kUntouched}};
  for (const auto& c : kCases) {
    WriteFile(kSetting, c.text);
    uint32_t value = kUntouched;
    errno = 0;
    EXPECT_EQ(GetSharedRegionUnnestLogging(&value), c.error == 0 ? 0 : -1);
    EXPECT_EQ(errno, c.error);
    EXPECT_EQ(value, c.value);
  }
  EXPECT_EQ(GetSharedRegionUnnestLogging(nullptr), EINVAL);
}

// One letter a step of a host.
const zu::test::ChildScenario kHost("Host", [](const Arguments& arguments) {
  for (const char step : arguments[0]) {
    if (step == 'z') {
      EXPECT_EQ(ZuSetSharedRegionUnnestLogging(7), 0);
    } else if (step == 's') {
      EXPECT_EQ(SetSharedRegionUnnestLogging(8), 0);
    } else if (step == 'f') {  // Fails: there is no such setting.
      std::filesystem::rename(kSetting, "/proc/sys/vm/away");
      EXPECT_EQ(ZuSetSharedRegionUnnestLogging(9), -1);
      EXPECT_EQ(errno, ENOENT);
      std::filesystem::rename("/proc/sys/vm/away", kSetting);
    } else if (step == 'c') {  // A child that ends as the host does.
      const pid_t child = ::fork();
      if (child == 0) std::exit(0);
      EXPECT_EQ(::waitpid(child, nullptr, 0), child);
      EXPECT_EQ(ReadFile(kSetting), "7\n");
    }
  }
  return 0;
});

TEST_F(UnnestLoggingTest, IsPutBackOnceChangedForAHost) {
  for (const std::string steps : {"", "z", "f", "sz", "zs", "zc", "s", "fs"}) {
    WriteFile(kSetting, "123\n");
    const zu::test::ChildResult result = zu::test::RunInChild(kHost, {steps});
    EXPECT_EQ(result.status, 0) << steps << result.output;
    const bool stays = steps == "s" || steps == "fs";
    EXPECT_EQ(ReadFile(kSetting), stays ? "8\n" : "123\n") << steps;
  }
}

}  // namespace
