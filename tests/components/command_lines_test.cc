// Services, kernel extensions and the ownership of files: the tools that they
// run, word for word.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <filesystem>
#include <functional>

#include "ZuHelper.h"
#include "build_values.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

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
      {[] { return StopKext(""); }, kKextunload, "|-b|\n"},
      {[] { return StopService("gone.plist"); }, kLaunchctl, ""},
      {[] { return StartService(nullptr); }, kLaunchctl, ""},
      {[] { return StopService(nullptr); }, kLaunchctl, ""},
      {[] { return StartKext(nullptr); }, kSudo, ""},
      {[] { return StopKext(nullptr); }, kKextunload, ""},
      {[=] { return own(kFile, "a", "b"); }, kSudo,
       "|/usr/sbin/chown|a:b|/Users/zu/a file\n"},
      {[=] { return own(kHome, "1", "2"); }, kSudo,
       "|/usr/sbin/chown|-R|1:2|/Users/zu\n"},
      {[=] { return own("/Users/none", "a", "b"); }, kSudo, ""},
      {[=] { return own(kFile, "", "b"); }, kSudo, ""},
      {[=] { return own(kFile, "a", nullptr); }, kSudo, ""},
      {[=] { return permit(kFile, "", 0); }, kChmod, "||/Users/zu/a file\n"},
      {[=] { return permit(kHome, "0755", 256); }, kChmod,
       "|-R|0755|/Users/zu\n"},
      {[=] { return permit("/Users/none", "0755", 1); }, kChmod, ""},
      {[=] { return permit(kFile, nullptr, 1); }, kChmod, ""},
  };
  WriteFile(kFile, "");
  WriteFile(ZU_DAEMON(".agent_service"), "");
  WriteFile(ZU_DAEMON(".zubrantes"), "");
  // Nobody writes to it.
  ASSERT_EQ(::mkfifo(ZU_DAEMON(".zuorvex_service"), 0600), 0);
  for (const auto& [call, tool, line] : cases) {
    SCOPED_TRACE(line + std::to_string(&line - &cases[0].line));
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
  const struct {
    const char *who, *path, *line;
  } cases[] = {
      {"zu  ttys000  Nov 23 04:14\n", kFile, "|zu|/Users/zu/a file\n"},
      {"z\u20ac\u2003tty", kFile, "|z\u20ac|/Users/zu/a file\n"},
      {" zu ttys000\n", kFile, "||/Users/zu/a file\n"},
      {"", kFile, ""},
      {"zu\n", "", ""},
  };
  for (const auto& c : cases) {
    const zu::test::RecordingTool who("/usr/bin/who", c.who);
    const zu::test::RecordingTool chown("/usr/sbin/chown", "");
    EXPECT_EQ(ZuChangeFileOwnerToCurrentUser(c.path), *c.line != '\0') << c.who;
    EXPECT_EQ(chown.CommandLines(), c.line);
    EXPECT_EQ(who.CommandLines(), *c.path != '\0' ? "|-m\n" : "");
  }
}

}  // namespace
