// Services, kernel extensions, the ownership of files and archives: the tools
// that they run, word for word. And the updater, with all that it starts with.

#include <gtest/gtest.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include "ZuHelper.h"
#include "build_values.h"
#include "tests/support/fake_tool.h"
#include "tests/support/process_state.h"
#include "tests/support/test_root.h"
#include "tests/support/wait_until.h"

namespace {

using zu::test::WriteFile;

#define ZU_DAEMON(name) "/Library/LaunchDaemons/" ZU_VENDOR_PREFIX name ".plist"
#define ZU_LOAD(name) "|load|" ZU_DAEMON(name) "\n"
#define ZU_UNLOAD(name) "|unload|" ZU_DAEMON(name) "\n"
#define ZU_KEXTLOAD(name) "|/sbin/kextload|/Library/Extensions/" name ".kext\n"
#define ZU_KEXTUNLOAD(name) "|-b|" ZU_KEXT_VENDOR_PREFIX name "\n"
constexpr char kLaunchctl[] = "/bin/launchctl";
constexpr char kSudo[] = "/usr/bin/sudo";
constexpr char kKextunload[] = "/sbin/kextunload";
constexpr char kChmod[] = "/bin/chmod";
constexpr char kFile[] = "/Users/zu/a file";
constexpr char kHome[] = "/Users/zu";

using CommandLinesTest = zu::test::RootedTest;

// A tool that prints has failed; one that is silent has not, nor has one that
// cannot be started.
TEST_F(CommandLinesTest, CallsAndResults) {
  const auto own = ZuChangeFileOwnerGroup;
  const auto permit = ZuChangeFilePermissions;
  const struct {
    std::function<uint32_t()> call;
    const char* tool;
    std::string line;  // Empty: not run, and the result is 0.
  } cases[] = {
      {ZuStartZuService, kLaunchctl, ZU_LOAD(".agent_service")},
      {ZuStopZuService, kLaunchctl, ZU_UNLOAD(".agent_service")},
      {ZuStartZuExtension, kLaunchctl, ZU_LOAD(".zubrantes")},
      {ZuStopZuExtension, kLaunchctl, ZU_UNLOAD(".zubrantes")},
      {ZuStartOrvexService, kLaunchctl, ZU_LOAD(".zuorvex_service")},
      {ZuStopOrvexService, kLaunchctl, ZU_UNLOAD(".zuorvex_service")},
      {ZuStartZuKext, kSudo, ZU_KEXTLOAD("ZuShieldDrvOSX")},
      {ZuStopZuKext, kKextunload, ZU_KEXTUNLOAD(".ZuShieldDrvOSX")},
      {ZuStartOrvexKext, kSudo, ZU_KEXTLOAD("ZuOrvexMacOSDriver")},
      {ZuStopOrvexKext, kKextunload, ZU_KEXTUNLOAD(".ZuOrvexMacOSDriver")},
      {[] { return StopService("gone.plist"); }, kLaunchctl, ""},
      {[] { return StartService(nullptr); }, kLaunchctl, ""},
      {[=] { return own(kFile, "a", "b"); }, kSudo,
       "|/usr/sbin/chown|a:b|/Users/zu/a file\n"},
      {[=] { return own(kHome, "1", "2"); }, kSudo,
       "|/usr/sbin/chown|-R|1:2|/Users/zu\n"},
      {[=] { return own("/Users/none", "a", "b"); }, kSudo, ""},
      {[=] { return own(kFile, "", "b"); }, kSudo, ""},
      {[=] { return permit(kFile, "", 0); }, kChmod, "||/Users/zu/a file\n"},
      {[=] { return permit(kHome, "0755", 256); }, kChmod,
       "|-R|0755|/Users/zu\n"},
      {[] { return ZuDecompress("/a b/$c.tbz///"); }, kSudo,
       "|/usr/bin/tar|-C|/a b|-jxf|/a b/$c.tbz///\n"},
      {[] { return ZuDecompress("a.tbz"); }, kSudo,
       "|/usr/bin/tar|-C||-jxf|a.tbz\n"},
      {[] { return ZuDecompress("//a//\u00E9//c"); }, kSudo,
       "|/usr/bin/tar|-C|/a/\u00E9|-jxf|//a//\u00E9//c\n"},
      {[] { return ZuDecompress(nullptr); }, kSudo, ""},
      {[] { return ZuDecompress("\xff"); }, kSudo, ""},
  };
  WriteFile(kFile, "");
  WriteFile(ZU_DAEMON(".agent_service"), "");
  WriteFile(ZU_DAEMON(".zubrantes"), "");
  WriteFile(ZU_DAEMON(".zuorvex_service"), "");
  for (const auto& [call, tool, line] : cases) {
    SCOPED_TRACE(line);
    for (const std::string output : {"", "\n"}) {
      const zu::test::RecordingTool recorder(tool, output);
      EXPECT_EQ(call(), !line.empty() && output.empty());
      EXPECT_EQ(recorder.CommandLines(), line);
    }
    std::filesystem::remove(tool);
    EXPECT_EQ(call(), !line.empty());
  }
}

TEST_F(CommandLinesTest, OwnerIsTheUserAtTheTerminal) {
  for (const auto& [printed, line] :
       {std::pair("zu  ttys000  Nov 23\n", "|zu|/Users/zu/a file\n"),
        {"", ""}}) {
    const zu::test::RecordingTool who("/usr/bin/who", printed);
    const zu::test::RecordingTool chown("/usr/sbin/chown", "");
    EXPECT_EQ(ZuChangeFileOwnerToCurrentUser(kFile), *line != '\0');
    EXPECT_EQ(chown.CommandLines(), line);
    EXPECT_EQ(who.CommandLines(), "|-m\n");
  }
}

constexpr char kUpdater[] = "/Library/Zu Agent/updater";
constexpr char kDirectory[] = "/Library/Zu Agent/work";
constexpr char kPlain[] = "/Library/Zu Agent/plain";
constexpr char kRegistry[] = "MONO_REGISTRY_PATH";

// In this order: directory, arguments, environment, descriptors (ls opens one
// itself) and whether the process group is its own.
constexpr char kReport[] = R"sh(#!/bin/sh
exec >/tmp/report
pwd -P
printf '<%s>\n' "$@"
tr '\000' '\n' </proc/$$/environ
ls /proc/self/fd
[ "$(cut -d ' ' -f 5 /proc/$$/stat)" = $$ ] && echo own group
)sh";

TEST_F(CommandLinesTest, StartsTheUpdaterCleanlyWhereItCanWork) {
  const auto childless = [] { return !zu::test::HasChildren(); };
  EXPECT_TRUE(zu::test::WaitUntil(childless));  // Of other tests' children.
  WriteFile(kUpdater, kReport, 0755);
  WriteFile(kPlain, kReport);
  std::filesystem::create_directory(kDirectory);
  ::unsetenv(kRegistry);
  EXPECT_EQ(ZuStartZuUpdater(kUpdater, kDirectory, "a", "b"), 0u);
  ::setenv(kRegistry, "", 1);
  EXPECT_EQ(ZuStartZuUpdater(kPlain, kDirectory, "a", "b"), 0u);
  EXPECT_EQ(ZuStartZuUpdater(kUpdater, kDirectory, "a", ""), 0u);
  EXPECT_TRUE(childless());
  ::dup2(STDOUT_FILENO, 77);  // Children inherit it.
  EXPECT_EQ(ZuStartZuUpdater(kUpdater, kDirectory, "--one", "2 3"), 1u);
  EXPECT_TRUE(zu::test::WaitUntil(childless));
  EXPECT_EQ(zu::test::ReadFile("/tmp/report"),
            "/Library/Zu Agent/work\n<--one>\n<2 3>\n"
            "DYLD_LIBRARY_PATH=/Library/Zu Agent\nMONO_REGISTRY_PATH=\n"
            "0\n1\n2\n3\nown group\n");
}

}  // namespace
