// Which machine, system and product this is, on files of the test's own.

#include <sys/mount.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <array>
#include <filesystem>
#include <functional>
#include <optional>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "build_values.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace {

namespace fs = std::filesystem;
using zu::test::WriteFile;

using IdentityTest = zu::test::RootedTest;
using File = std::optional<std::string>;

void Replace(const fs::path& path, const File& text) {
  fs::remove_all(path);
  if (text) WriteFile(path, *text);
}

TEST_F(IdentityTest, VersionAndRevision) {
  using Version = std::array<uint32_t, 4>;
  const uint32_t loaded = gOSVersion;
  const std::string key = "<dict>\n\t<key>ProductVersion</key>";
  const std::string value = "\t<string>12.6.1</string>\n";
  const std::string blanks(1983, ' ');
  const struct {
    uint32_t packed;
    File file;
    std::string sysctl;
    Version expected;
  } kCases[] = {
      {10015007, key + "\n" + value, "", {10, 15, 7}},
      {11016000, key + "\n" + value, "kern: 199506\\n", {11, 16, 0, 199506}},
      {10016002, {}, "none\\n", {10, 16, 2}},
      {10016002, key + "\n" + value, "-12 of 15 (x)\\n", {12, 6, 1, 12}},
      {10016002, key + "\n<string>11.0</string>\n", "", {11, 0, 2}},
      {10016002, key + value, "v4294967297", {10, 16, 2, 1}},
      {10016002, key + "\n\n" + value + key + "\n" + value, "", {10, 16, 2}},
      // Lines are cut behind 1999 bytes, which parts these or does not.
      {10016002, blanks + " ProductVersion" + value, "", {12, 6, 1}},
      {10016002, blanks + "ProductVersion" + value, "", {10, 16, 2}},
      {0, {}, "", {loaded / 1000000, loaded / 1000 % 1000, loaded % 1000}},
  };
  for (const auto& c : kCases) {
    const zu::test::FakeTool sysctl(
        "/usr/sbin/sysctl",
        "[ \"$*\" = kern.osrevision ] && printf -- '" + c.sysctl + "'");
    Replace("/System/Library/CoreServices/.SystemVersionPlatform.plist",
            c.file);
    gOSVersion = c.packed;
    Version version{};
    auto& [major, minor, patch, revision] = version;
    GetOSVersion(&major, &minor, nullptr, &revision);
    EXPECT_EQ(version, Version());
    GetOSVersion(&major, &minor, &patch, &revision);
    EXPECT_EQ(version, c.expected) << c.packed << c.file.value_or("");
  }
}

TEST_F(IdentityTest, Architecture) {
  utsname name;
  ASSERT_EQ(::uname(&name), 0);
  std::string machine = name.machine;
  const size_t length = machine.size();
  machine.resize(100);
  for (const size_t capacity : {size_t{3}, size_t{4}, length, length + 1}) {
    std::string buffer(100, '#'), expected = buffer;
    if (capacity > 3) expected.replace(0, capacity, machine, 0, capacity);
    GetSystemArchitecture(buffer.data(), static_cast<int32_t>(capacity));
    EXPECT_EQ(buffer, expected) << capacity;
  }
}

// A text comes whole and with its NUL; where it does not fit or there is none,
// `failed` takes its place.
using Getter = std::function<uint32_t(char*, int32_t)>;
void ExpectText(const Getter& get, const std::string& text,
                const std::string& failed = std::string(1, '\0')) {
  const auto length = static_cast<int32_t>(text.size());
  for (const int32_t capacity : {0, length, length + 1, 200}) {
    std::string buffer(200, '#'), expected = buffer;
    const bool fits = capacity > length && length > 0;
    const std::string written = fits ? text + '\0' : failed;
    if (capacity > 0) expected.replace(0, written.size(), written);
    EXPECT_EQ(get(buffer.data(), capacity), fits ? 1u : 0u) << text << capacity;
    EXPECT_EQ(buffer, expected) << capacity;
  }
}

TEST_F(IdentityTest, PlatformProperty) {
  ASSERT_EQ(::mount("tmpfs", "/sys/class", "tmpfs", 0, nullptr), 0);
  WriteFile("/sys/class/dmi/id/product_serial", "ZX 81\n");
  WriteFile("/sys/class/dmi/id/product_name", "\xFF\n");  // Not UTF-8.
  for (const auto& [name, text] :
       {std::pair("IOPlatformSerialNumber", "ZX 81"), std::pair("model", ""),
        std::pair("IOPlatformUUID", ""), std::pair("product_serial", "")}) {
    const auto get = [property = name](char* buffer, int32_t capacity) {
      GetPlatformProperty(property, buffer, capacity);
      return buffer[0] != '\0' && buffer[0] != '#' ? 1u : 0u;
    };
    ExpectText(get, text);
  }
  EXPECT_EQ(::umount("/sys/class"), 0);
}

TEST_F(IdentityTest, HostName) {
  char name[256];
  ASSERT_EQ(::gethostname(name, sizeof name), 0);
  const std::pair<File, std::string> files[] = {
      {{}, name},
      {"PRETTY_HOSTNAME=\"\xFF\"", name},
      {"#PRETTY_HOSTNAME=a\n;b\nCHASSIS\nXPRETTY_HOSTNAME=c\n", name},
      {"CHASSIS=\"a\nPRETTY_HOSTNAME=b\"\nPRETTY_HOSTNAME=\n", name},
      {"A=\n PRETTY_HOSTNAME= Kate\\'s' \\'Ma\"c \" \t\nB=y\n",
       "Kate's \\Mac "},
      {"PRETTY_HOSTNAME=a\nPRETTY_HOSTNAME=b\\\n \\ c \r\n", "b  c"},
      {"PRETTY_HOSTNAME=\"Ka\\\"te \\$1 \\x\" #\n", "Ka\"te $1 \\x #"},
      {"PRETTY_HOSTNAME=\xC3\xA9\\", "\xC3\xA9\\"},
  };
  for (const auto& [file, pretty] : files) {
    Replace("/etc/machine-info", file);
    ExpectText(std::bind_front(&ZuGetHostName, 0), pretty);
    ExpectText(std::bind_front(&ZuGetHostName, -1), name);
  }
}

TEST_F(IdentityTest, ProductVersion) {
  const fs::path product =
      "/Library/Application Support/Zubrant/Desktop/ZubrantProduct.app";
  for (const std::string version : {"4.2.1", "4.2\xC3\xA9", ""}) {
    WriteFile(product / "Contents/Info.plist",
              "<plist version=\"1.0\"><dict><key>CFBundleShortVersionString"
              "</key><string>" +
                  version + "</string></dict></plist>");
    ExpectText(&ZuGetProductVersion, version, "");
  }
  Replace(product, "a file");
  ExpectText(&ZuGetProductVersion, "", "");
}

TEST_F(IdentityTest, InstallationType) {
  const auto line = [](const std::string& name) {
    return "  <string>/Applications/A.app/" + name + "</string>\n";
  };
  const std::pair<File, uint32_t> files[] = {
      {"<key>Program</key>\n" + line("ZubrantUI") + "<true/>\n", 1},
      {line("ZubrantUI") + line("TalvexDefenseUI"), 2},
      {line("TalvexShieldProUI"), 3},
      {line("TalvexDefenseUI") + line("ZubrantUI2"), 0},
      {"<string>/Applications//\n<string>/Library/ZubrantUI</string>\n", 0},
      {{}, 0},
  };
  for (const auto& [file, type] : files) {
    Replace("/Library/LaunchAgents/" ZU_UI_AGENT_LABEL ".plist", file);
    EXPECT_EQ(ZuGetInstallationType(), type) << file.value_or("no file");
  }
}

}  // namespace
