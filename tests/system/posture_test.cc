// The posture probes, on what tools in their places print.

#include <filesystem>
#include <optional>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace {

namespace fs = std::filesystem;
using zu::test::WriteFile;
using PostureTest = zu::test::RootedTest;
using Output = std::optional<std::string>;  // Absent: there is no tool.

// What the probe says, and what the tool was called with: ",a,b" a call.
std::pair<int32_t, std::string> Probe(int32_t (*probe)(), const fs::path& path,
                                      const Output& output) {
  fs::remove(path);
  std::optional<zu::test::RecordingTool> tool;
  if (output) tool.emplace(path, *output);
  const int32_t result = probe();
  std::string record;
  if (!tool) return {result, record};
  for (const auto& call : tool->Calls()) {
    for (const auto& argument : call.arguments) record += "," + argument;
  }
  return {result, record};
}

TEST_F(PostureTest, IsOffWhenTheToolSaysSo) {
  const struct {
    int32_t (*probe)();
    const char* tool;
    std::string arguments, off;
  } kProbes[] = {
      {[] { return int32_t{ZuIsFireWallOn()}; }, "/usr/bin/sudo",
       ",/sbin/pfctl,-si", "Status: Disabled"},
      {[] { return int32_t{ZuIsAutoCheckUpdateEnabled()}; },
       "/usr/bin/defaults",
       ",read,/Library/Preferences/com.apple.SoftwareUpdate"
       ",AutomaticCheckEnabled",
       "1"},
      {[] { return int32_t{ZuIsFileVaultEnabled()}; }, "/usr/bin/fdesetup",
       ",status", "FileVault is Off"},
      {[] { return int32_t{ZuIsGateKeeperEnabled()}; }, "/usr/sbin/spctl",
       ",--status", "assessments disabled"},
  };
  for (const auto& [probe, tool, arguments, off] : kProbes) {
    const std::pair<std::string, int32_t> outputs[] = {
        {"first\nThe " + off + "0\nlast\n", 0},
        {off.substr(1) + "\n", 1},
        {"", 1},
        {"\xFF", 0}};  // Not UTF-8.
    for (const auto& [output, on] : outputs) {
      EXPECT_EQ(Probe(probe, tool, output), std::pair(on, arguments)) << output;
    }
    EXPECT_EQ(Probe(probe, tool, std::nullopt).first, 0) << tool;
  }
}

TEST_F(PostureTest, WebSitesRestricationLevel) {
  const std::string active = "ACTIVE=c7\nACTIVE_UID=4321\n";
  const std::string many(5000, 'x');  // More than a look-up begins with.
  const struct {
    std::string seat, session, login, group;
    Output output;
    int32_t level;
  } kCases[] = {
      {"", "user", "kate", "", "x", -1},
      {active, "greeter", "kate", "", "x", -1},
      {active, "user", "loginwindow", "", "x", -1},
      {active, "user", "kate", "admin:x:80:" + many + ",kate\n", "x", -1},
      {active, "user", "kate", "admin:x:80:Kate,kat,kate2\n", "x", 1},
      {active, "user", "kate", "", "", 0},
      {active, "user", "kate", "", std::nullopt, 0},
  };
  for (const auto& c : kCases) {
    // The administrators' group is also the user's own.
    for (const auto& [path, text] :
         {std::pair("/run/systemd/seats/seat0", "IS_VTCONSOLE=1\n" + c.seat),
          std::pair("/run/systemd/sessions/c7",
                    "STATE=active\nCLASS=" + c.session + "\n"),
          std::pair("/etc/passwd", c.login + ":x:4321:80::/:/bin/sh\n"),
          std::pair("/etc/group", "staff:x:20:kate\n" + c.group)}) {
      fs::remove(path);
      WriteFile(path, text);
    }
    const bool asks = c.level != -1 && c.output;
    EXPECT_EQ(Probe(&ZuWebSitesRestricationLevel, "/usr/bin/dscl", c.output),
              std::pair(c.level, std::string(asks ? ",.,-read,/Users/kate,|"
                                                    ",grep,MCXSettings:"
                                                  : "")))
        << c.session << c.login << c.group.substr(0, 30);
  }
}

}  // namespace
