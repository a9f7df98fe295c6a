// Bundles' information through the exported name, from real directories.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "ZuHelper.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace zu::test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using BundleInformationTest = RootedTest;

const std::string kRoot = "/tmp/bundles/";
const std::string kDictionary = kRoot + "A.app/Contents/Info.plist";

std::string Xml(const std::string& key, const std::string& value) {
  return "<dict><key>" + key + "</key>" + value + "</dict>";
}

// Absent when the library gives 0; it must not have changed anything then.
std::optional<std::string> InfoOf(const std::string& path) {
  std::string buffer(1000, '#');
  uint32_t size = 1000;
  if (ZuGetExecutableInfo(path.c_str(), buffer.data(), &size) == 0) {
    EXPECT_EQ(buffer, std::string(1000, '#'));
    EXPECT_EQ(size, 1000u);
    return std::nullopt;
  }
  EXPECT_EQ(buffer.substr(size), std::string(1000 - size, '#'));
  return buffer.substr(0, size);
}

TEST_F(BundleInformationTest, ComesFromTheRightDictionary) {
  const struct {
    const char* file;
    const char* right;  // A directory; "": there is none; null: no bundle.
    std::vector<const char*> wrong = {};
  } rows[] = {
      {"A.app/Contents/MacOS/A",
       "A.app/Contents",
       {"A.app", "A.app/Resources"}},
      {"A.app/A", "A.app/Resources", {"A.app"}},
      {"F.framework/Versions/A/F",
       "F.framework/Versions/Current/Resources",
       {"F.framework/Contents"}},
      {"K.kext/A.app/P.plugin/P",
       "K.kext/A.app/Contents",
       {"K.kext/Contents", "K.kext/A.app/P.plugin/Contents"}},
      // The first ".app" is in another name, and leads nowhere.
      {"an.application/A.app/A", "", {"an.application/A.app"}},
      {"A.app/\xff", nullptr, {"A.app/Contents"}},
  };
  const auto write = [](std::string directory, const std::string& identifier) {
    WriteFile(kRoot + directory + "/Info.plist",
              Xml("CFBundleIdentifier", "<string>" + identifier + "</string>"));
  };
  for (const auto& [file, right, wrong] : rows) {
    fs::remove_all(kRoot);
    const bool readable = right != nullptr && *right != '\0';
    for (const char* directory : wrong) write(directory, "wrong");
    if (readable) write(right, "right");
    WriteFile(kRoot + file, "");
    std::optional<std::string> expected;
    if (right != nullptr) expected = "{}";
    if (readable) expected = R"({"ProductName":"right"})";
    EXPECT_EQ(InfoOf(kRoot + file), expected) << file;
  }
}

// The values as the platform's writer has them.
TEST_F(BundleInformationTest, TellsValuesInJson) {
  // An empty text: no object at all.
  const std::pair<const char*, std::string> rows[] = {
      {"<string>1/2 \"\\&#8;&#31;\u007f\U0001F600</string>",
       "\"1\\/2 \\\"\\\\\\b\\u001f\u007f\U0001F600\""},
      {"<array><true/><false/><integer>-7</integer><array/><dict/></array>",
       "[true,false,-7,[],{}]"},
      {"<array><real>0.1</real><real>-1e300</real></array>",
       "[0.10000000000000001,-1.0000000000000001e+300]"},
      {"<dict><key>a/</key><dict/><key>d</key><true/>"
       "<key>d</key><false/></dict>",
       R"({"a\/":{},"d":false})"},
      {"<dict><key>a</key><real>nan</real></dict>", ""},
  };
  for (const auto& [value, json] : rows) {
    WriteFile(kDictionary, Xml("CFBundleShortVersionString",
                               value + "<key>NSHumanReadableCopyright</key>"
                                       "<string>C</string>"s));
    std::optional<std::string> expected;
    if (!json.empty()) expected = R"({"Copyright":"C","Version":)" + json + "}";
    EXPECT_EQ(InfoOf(kDictionary), expected) << value;
  }
  // In binary: a text of 1 MiB that an array of arrays has 10,000 times.
  WriteFile(kDictionary,
            "bplist00\xd1\1\2\x5f\x10\x12"
            "CFBundleIdentifier\xaf\x10\x64" +
                std::string(100, '\3') + "\xaf\x10\x64" +
                std::string(100, '\4') + "\x5f\x12\0\x10\0\0"s +
                std::string(1 << 20, 'a') +
                "\x08\x0b\x20\x87\xee"
                "\0\0\0\0\0\0\1\1\0\0\0\0\0\0\0\5\0\0\0\0\0\0\0\0"
                "\0\0\0\0\0\x10\0\xf4"s);
  EXPECT_EQ(InfoOf(kDictionary), std::nullopt);
}

TEST_F(BundleInformationTest, FilesThatAreNoDictionary) {
  fs::remove_all(kRoot);
  fs::create_directories(kRoot + "A.app/Contents");
  ASSERT_EQ(::mkfifo(kDictionary.c_str(), 0600), 0);
  EXPECT_EQ(InfoOf(kDictionary), "{}");  // At once, though nobody writes.
  fs::remove(kDictionary);
  WriteFile(kDictionary, "");
  fs::resize_file(kDictionary, uint64_t{1} << 40);
  EXPECT_EQ(InfoOf(kDictionary), "{}");
}

TEST_F(BundleInformationTest, SizesAndArguments) {
  WriteFile(kDictionary, "");
  char buffer[] = "###";
  for (const uint32_t capacity : {1u, 2u, ~0u}) {
    uint32_t size = capacity;
    EXPECT_EQ(GetExecutableInfo(kDictionary.c_str(), buffer, &size), 1u);
    EXPECT_EQ(size, 2u);
    EXPECT_STREQ(buffer, capacity < 2 ? "###" : "{}#");
  }
  uint32_t size = sizeof buffer;
  EXPECT_EQ(GetExecutableInfo(nullptr, buffer, &size), 0u);
  EXPECT_EQ(GetExecutableInfo(kDictionary.c_str(), nullptr, &size), 0u);
  EXPECT_EQ(GetExecutableInfo(kDictionary.c_str(), buffer, nullptr), 0u);
  EXPECT_EQ(InfoOf(kRoot + "A.app/none"), std::nullopt);
}

}  // namespace
}  // namespace zu::test
