// Which machine, system and product this is, on files of the test's own.

#include <sys/mount.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <array>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace {

using zu::test::WriteFile;

using IdentityTest = zu::test::RootedTest;

TEST_F(IdentityTest, VersionAndRevision) {
  using Version = std::array<uint32_t, 4>;
  const uint32_t loaded = gOSVersion;
  const std::string key = "<dict>\n\t<key>ProductVersion</key>\n";
  const std::string value = "\t<string>12.6.1</string>\n";
  const struct {
    uint32_t packed;
    std::string file, sysctl;
    Version expected;
  } cases[] = {
      {10015007, key + value, "none", {10, 15, 7}},
      {10016002, key + value, "-12 of 15 (x)\\n", {12, 6, 1, 12}},
      {10016002, key + "<string>11.0</string>\n", "", {11, 0, 2}},
      {10016002, key + "\n" + value + key + value, "", {10, 16, 2}},
      {0,
       "",
       "v4294967297",
       {loaded / 1000000, loaded / 1000 % 1000, loaded % 1000, 1}},
  };
  for (const auto& c : cases) {
    const zu::test::FakeTool sysctl(
        "/usr/sbin/sysctl",
        "[ \"$*\" = kern.osrevision ] && printf -- '" + c.sysctl + "'");
    WriteFile("/System/Library/CoreServices/.SystemVersionPlatform.plist",
              c.file);
    gOSVersion = c.packed;
    Version version{};
    auto& [major, minor, patch, revision] = version;
    GetOSVersion(&major, &minor, nullptr, &revision);
    EXPECT_EQ(version, Version());
    GetOSVersion(&major, &minor, &patch, &revision);
    EXPECT_EQ(version, c.expected) << c.packed << c.file;
  }
}

// Cut to the capacity without a NUL, or padded with NULs up to it.
TEST_F(IdentityTest, Architecture) {
  utsname name;
  ASSERT_EQ(::uname(&name), 0);
  const std::string machine = std::string(name.machine) + std::string(99, '\0');
  for (const size_t capacity : {3, 4, 99}) {
    std::string buffer(100, '#'), expected = buffer;
    if (capacity > 3) expected.replace(0, capacity, machine, 0, capacity);
    GetSystemArchitecture(buffer.data(), static_cast<int32_t>(capacity));
    EXPECT_EQ(buffer, expected) << capacity;
  }
  GetSystemArchitecture(nullptr, 99);
}

uint32_t GetSerialNumber(char* buffer, int32_t capacity) {
  GetPlatformProperty("IOPlatformSerialNumber", buffer, capacity);
  return capacity > 0 && *buffer != '\0';
}
uint32_t GetPrettyName(char* buffer, int32_t capacity) {
  return ZuGetHostName(0, buffer, capacity);
}

// A text comes whole and with its NUL, or else a NUL does; that of a product
// may then be left as it was.
TEST_F(IdentityTest, Texts) {
  ASSERT_EQ(::mount("tmpfs", "/sys/class", "tmpfs", 0, nullptr), 0);
  char name[256];
  ASSERT_EQ(::gethostname(name, sizeof name), 0);
  const std::string host = name;
  constexpr char kSerial[] = "/sys/class/dmi/id/product_serial";
  constexpr char kNames[] = "/etc/machine-info";
  constexpr char kProduct[] =
      "/Library/Application Support/Zubrant/Desktop/ZubrantProduct.app/"
      "Contents/Info.plist";
  const std::string product =
      "<dict><key>CFBundleShortVersionString</key><string>";
  const struct {
    uint32_t (*get)(char*, int32_t);
    const char* path;
    std::string file, text;
  } cases[] = {
      {GetSerialNumber, kSerial, "ZX 81\n", "ZX 81"},
      {GetSerialNumber, kSerial, "\xFF\n", ""},  // Not UTF-8.
      {GetPrettyName, kNames,
       "#a\\\nPRETTY_HOSTNAME=a\n;b\nCHASSIS\nXPRETTY_HOSTNAME=c\n", host},
      // As load_env_file of the file's owner, systemd 252, reads them.
      {GetPrettyName, kNames,
       "PRETTY_HOSTNAME=a\rPRETTY_HOSTNAME='b \\' \"\\\\\\$1\\\n \\x \" \\\n "
       "\\ c \r\n",
       "b \\\\$1 \\x   c"},
      {ZuGetProductVersion, kProduct, product + "4.2</string></dict>", "4.2"},
      {ZuGetProductVersion, kProduct, product + "</string></dict>", ""},
  };
  for (const auto& [get, path, file, text] : cases) {
    WriteFile(path, file);
    const size_t length = text.size();
    for (const size_t capacity : {size_t{0}, length, length + 1, size_t{200}}) {
      std::string buffer(200, '#'), expected = buffer;
      const bool fits = capacity > length && length > 0;
      const std::string_view written(text.c_str(), fits ? length + 1 : 0);
      expected.replace(0, written.size(), written);
      if (!fits && capacity > 0 && get != ZuGetProductVersion) expected[0] = 0;
      EXPECT_EQ(get(buffer.data(), static_cast<int32_t>(capacity)), fits);
      EXPECT_EQ(buffer, expected) << file << capacity;
    }
  }
  EXPECT_EQ(ZuGetHostName(-1, name, sizeof name), 1u);
  EXPECT_EQ(name, host);
  GetPlatformProperty("model", nullptr, 200);
  EXPECT_EQ(ZuGetHostName(0, nullptr, 200), 0u);
  EXPECT_EQ(ZuGetProductVersion(nullptr, 200), 0u);
  EXPECT_EQ(::umount("/sys/class"), 0);
}

}  // namespace
