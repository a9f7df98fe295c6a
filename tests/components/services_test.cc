// Services and kernel extensions, over fake tools.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <filesystem>

#include "ZuHelper.h"
#include "build_values.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace {

using zu::test::RecordingTool;

#define ZU_DAEMON(name) "/Library/LaunchDaemons/" name ".plist"
#define ZU_OUR_DAEMON(name) ZU_DAEMON(ZU_VENDOR_PREFIX name)
constexpr char kLaunchctl[] = "/bin/launchctl";
constexpr char kSudo[] = "/usr/bin/sudo";
constexpr char kKextload[] = "/sbin/kextload";
constexpr char kKextunload[] = "/sbin/kextunload";

using ServicesTest = zu::test::RootedTest;

// A tool that prints has failed; one that is silent has not, nor has one that
// cannot be started.
TEST_F(ServicesTest, CommandLinesAndResults) {
  const struct {
    uint32_t (*call)();
    const char* tool;
    std::vector<std::string> arguments;  // None: not run, and the result is 0.
  } cases[] = {
      {ZuStartZuService, kLaunchctl, {"load", ZU_OUR_DAEMON(".agent_service")}},
      {ZuStopZuService,
       kLaunchctl,
       {"unload", ZU_OUR_DAEMON(".agent_service")}},
      {ZuStartZuExtension, kLaunchctl, {"load", ZU_OUR_DAEMON(".zubrantes")}},
      {ZuStopZuExtension, kLaunchctl, {"unload", ZU_OUR_DAEMON(".zubrantes")}},
      {ZuStartOrvexService,
       kLaunchctl,
       {"load", ZU_OUR_DAEMON(".zuorvex_service")}},
      {ZuStopOrvexService,
       kLaunchctl,
       {"unload", ZU_OUR_DAEMON(".zuorvex_service")}},
      {ZuStartZuKext,
       kSudo,
       {kKextload, "/Library/Extensions/ZuShieldDrvOSX.kext"}},
      {ZuStopZuKext,
       kKextunload,
       {"-b", ZU_KEXT_VENDOR_PREFIX ".ZuShieldDrvOSX"}},
      {ZuStartOrvexKext,
       kSudo,
       {kKextload, "/Library/Extensions/ZuOrvexMacOSDriver.kext"}},
      {ZuStopOrvexKext,
       kKextunload,
       {"-b", ZU_KEXT_VENDOR_PREFIX ".ZuOrvexMacOSDriver"}},
      {[] { return StopKext(""); }, kKextunload, {"-b", ""}},
      // A FIFO, which nobody writes to.
      {[] { return StopService("fifo.plist"); },
       kLaunchctl,
       {"unload", ZU_DAEMON("fifo")}},
      {[] { return StopService("gone.plist"); }, kLaunchctl, {}},
      {[] { return StartService(nullptr); }, kLaunchctl, {}},
      {[] { return StopService(nullptr); }, kLaunchctl, {}},
      {[] { return StartKext(nullptr); }, kSudo, {}},
      {[] { return StopKext(nullptr); }, kKextunload, {}},
  };
  for (const char* tool : {kLaunchctl, kSudo, kKextunload}) {
    std::filesystem::remove(tool);
  }
  for (const char* name :
       {".agent_service", ".zubrantes", ".zuorvex_service"}) {
    zu::test::WriteFile(
        std::string("/Library/LaunchDaemons/" ZU_VENDOR_PREFIX) + name +
            ".plist",
        "");
  }
  ::mkfifo(ZU_DAEMON("fifo"), 0600);
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    const bool runs = !c.arguments.empty();
    for (const char* output : {"", "\n"}) {
      const RecordingTool tool(c.tool, output);
      EXPECT_EQ(c.call(), runs && *output == '\0');
      ASSERT_EQ(tool.Calls().size(), runs);
      if (!runs) continue;
      EXPECT_EQ(tool.Calls()[0].arguments, c.arguments);
    }
    EXPECT_EQ(c.call(), runs);
  }
}

}  // namespace
