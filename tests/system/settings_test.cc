// Security settings, on what tools in their places print, and the kernel's
// logging switch, on a file in the kernel's place.

#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace {

namespace fs = std::filesystem;
using zu::test::ReadFile;
using zu::test::RecordingTool;
using zu::test::WriteFile;

constexpr uint32_t kUntouched = 0xABCD;
constexpr char kSetting[] = "/proc/sys/vm/shared_region_unnest_logging";

using SettingsTest = zu::test::RootedTest;

TEST_F(SettingsTest, ProbesAreOffWhenTheToolSaysSo) {
  const struct {
    uint8_t (*probe)();
    const char* tool;
    std::string arguments, off;
  } probes[] = {
      {ZuIsFireWallOn, "/usr/bin/sudo", "|/sbin/pfctl|-si\n",
       "Status: Disabled"},
      {ZuIsAutoCheckUpdateEnabled, "/usr/bin/defaults",
       "|read|/Library/Preferences/com.apple.SoftwareUpdate"
       "|AutomaticCheckEnabled\n",
       "1"},
      {ZuIsFileVaultEnabled, "/usr/bin/fdesetup", "|status\n",
       "FileVault is Off"},
      {ZuIsGateKeeperEnabled, "/usr/sbin/spctl", "|--status\n",
       "assessments disabled"},
  };
  for (const auto& [probe, tool, arguments, off] : probes) {
    for (const auto& [output, on] :
         {std::pair("first\nThe " + off + "0\nlast\n", 0),
          {off.substr(1) + "\n", 1},
          {"", 1}}) {
      const RecordingTool recorder(tool, output);
      EXPECT_EQ(probe(), on) << tool << output;
      EXPECT_EQ(recorder.CommandLines(), arguments);
    }
    fs::remove(tool);
    EXPECT_EQ(probe(), 0) << tool;
  }
}

TEST_F(SettingsTest, WebSitesRestricationLevel) {
  // The administrators' group is also the user's own.
  const struct {
    std::string path, managed, not_applicable;
  } files[] = {
      {"/run/systemd/seats/seat0", "ACTIVE=c7\nACTIVE_UID=4321\n", "A=1\n"},
      {"/run/systemd/sessions/c7", "CLASS=user\n", "CLASS=greeter\n"},
      {"/etc/passwd", "kate:x:4321:80::/:\n", "loginwindow:x:4321:80::/:\n"},
      {"/etc/group", "staff:x:20:kate\nadmin:x:80:Kate,kat,kate2\n",
       "staff:x:20:\nadmin:x:80:root,kate\n"},
  };
  for (const auto& changed : files) {
    for (const auto& file : files) {
      fs::remove(file.path);
      WriteFile(file.path, file.managed);
    }
    for (const auto& [output, level] :
         {std::pair("x", 1), {"", 0}, {"x", -1}}) {
      if (level == -1) WriteFile(changed.path, changed.not_applicable);
      const RecordingTool tool("/usr/bin/dscl", output);
      EXPECT_EQ(ZuWebSitesRestricationLevel(), level) << changed.path;
      EXPECT_EQ(
          tool.CommandLines(),
          level == -1 ? "" : "|.|-read|/Users/kate|||grep|MCXSettings:\n");
    }
  }
}

TEST_F(SettingsTest, ReadsRestrictionsByLine) {
  const std::string all =
      "\tApple Internal: disabled\n\tKext Signing: disabled\n"
      "\tFilesystem Protections: disabled\n\tDebugging Restrictions: disabled\n"
      "\tDTrace Restrictions: disabled\n\tNVRAM Protections: disabled\n";
  const std::pair<std::string, uint32_t> cases[] = {
      {all, 127},
      {all.substr(all.find('\n')), 107},
      {"disabled:\u2027Debugging Restrictions, DTrace Restrictions", 40},
      {"Kext Signing\rdisabled\vKext Signing\u2028disabled\n", 0},
      {"", kUntouched},
  };
  const uint32_t loaded = gOSVersion;
  for (const auto& [output, expected] : cases) {
    const RecordingTool tool("/usr/bin/csrutil", output);
    uint32_t flags = kUntouched;
    gOSVersion = 10010999;
    EXPECT_EQ(ZuGetRootlessConfig(&flags), -1);
    gOSVersion = 10011000;
    EXPECT_EQ(ZuGetRootlessConfig(nullptr), -1);
    EXPECT_EQ(ZuGetRootlessConfig(&flags), expected == kUntouched ? EIO : 0);
    EXPECT_EQ(flags, expected) << output;
    EXPECT_EQ(tool.CommandLines(), "|status\n");
  }
  gOSVersion = loaded;
}

// What changes it puts it back at its end, and nothing else does.
const zu::test::ChildScenario kHost("Host", [](const zu::test::Arguments&) {
  const auto fork_one = [](const auto& act) {
    const pid_t child = ::fork();
    if (child == 0) std::exit(act());
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  };
  fork_one([] { return ZuSetSharedRegionUnnestLogging(8); });
  EXPECT_EQ(ReadFile(kSetting), "123\n");
  EXPECT_EQ(ZuSetSharedRegionUnnestLogging(7), 0);
  fork_one([] { return 0; });
  EXPECT_EQ(ReadFile(kSetting), "7\n");
  return 0;
});

TEST_F(SettingsTest, UnnestLoggingIsOneNumberAndPutBack) {
  ASSERT_EQ(::mount("tmpfs", "/proc/sys/vm", "tmpfs", 0, nullptr), 0);
  for (const auto& [text, error] :
       {std::pair("4294967295\n", 0), {"4294967296\n", ERANGE}, {"", EINVAL}}) {
    WriteFile(kSetting, text);
    uint32_t value = kUntouched;
    errno = 0;
    EXPECT_EQ(GetSharedRegionUnnestLogging(&value), error == 0 ? 0 : -1);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(value, error == 0 ? UINT32_MAX : kUntouched);
  }
  EXPECT_EQ(GetSharedRegionUnnestLogging(nullptr), EINVAL);
  WriteFile(kSetting, "123\n");
  const zu::test::ChildResult result = zu::test::RunInChild(kHost);
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(ReadFile(kSetting), "123\n");
  fs::remove(kSetting);  // There is no such setting.
  EXPECT_EQ(ZuSetSharedRegionUnnestLogging(9), -1);
  EXPECT_EQ(::umount("/proc/sys/vm"), 0);
}

}  // namespace
