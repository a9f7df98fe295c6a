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

const std::string kRoot = "/tmp/bundles/";
const std::string kDictionary = kRoot + "A.app/Contents/Info.plist";

std::string Xml(const std::string& entries) {
  return "<plist version=\"1.0\"><dict>" + entries + "</dict></plist>";
}

// A list of these objects, the first of which is its root.
std::string Binary(const std::vector<std::string>& objects) {
  std::string list = "bplist00", table;
  const auto big = [](size_t value, int size) {
    std::string bytes;
    while (size-- > 0) bytes += static_cast<char>(value >> 8 * size);
    return bytes;
  };
  for (const std::string& object : objects) {
    table += big(list.size(), 4);
    list += object;
  }
  return list + table + "\0\0\0\0\0\0\4\1"s + big(objects.size(), 8) +
         big(0, 8) + big(list.size(), 8);
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

class BundleInformationTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    fs::remove_all(kRoot);
  }
};

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
      {"A.bundle", "A.bundle"},
      {"A.plugin/", "A.plugin/Contents"},
      {"F.framework/F", "F.framework/Resources", {"F.framework/Contents"}},
      {"F.framework/Versions/A/F",
       "F.framework/Versions/A/Resources",
       {"F.framework"}},
      {"K.kext/F.framework/F", "K.kext/F.framework", {"K.kext/Contents"}},
      {"K.kext/A.app/P.plugin/P",
       "K.kext/A.app/Contents",
       {"K.kext/Contents", "K.kext/A.app/P.plugin/Contents"}},
      // The first ".app" is in another name, and leads nowhere.
      {"an.application/A.app/A", "", {"an.application/A.app"}},
      {"A.app/Contents/A", "", {"A.app"}},
      {"A.APP/A", nullptr, {"A.APP/Contents"}},
      {"file", nullptr},
  };
  const auto write = [](std::string directory, const std::string& identifier) {
    WriteFile(kRoot + directory + "/Info.plist",
              Xml("<key>CFBundleIdentifier</key><string>" + identifier +
                  "</string>"));
  };
  for (const auto& [file, right, wrong] : rows) {
    fs::remove_all(kRoot);
    fs::create_directories(kRoot + "F.framework/Versions");
    fs::create_symlink("A", kRoot + "F.framework/Versions/Current");
    const bool readable = right != nullptr && *right != '\0';
    for (const char* directory : wrong) write(directory, "wrong");
    if (readable) write(right, "right");
    if (!fs::exists(kRoot + file)) WriteFile(kRoot + file, "");
    const auto info = InfoOf(kRoot + file);
    EXPECT_EQ(info.has_value(), right != nullptr) << file;
    EXPECT_EQ(info.value_or("{}"),
              readable ? R"({"ProductName":"right"})" : "{}")
        << file;
  }
}

// The values as the platform's writer has them.
TEST_F(BundleInformationTest, TellsValuesInJson) {
  // An empty text: no object at all.
  const std::pair<const char*, const char*> rows[] = {
      {"<string>1/2 \"\\\n\t\u007f\u00e9\U0001F600</string>",
       "\"1\\/2 \\\"\\\\\\n\\t\u007f\u00e9\U0001F600\""},
      {"<string></string>", "\"\""},
      {"<array><true/><false/><integer>-7</integer><array/><dict/></array>",
       "[true,false,-7,[],{}]"},
      {"<array><real>0.1</real><real>1</real><real>-1e300</real></array>",
       "[0.10000000000000001,1,-1.0000000000000001e+300]"},
      {"<dict><key>a/</key><dict><key>b</key><string>c</string></dict>"
       "<key>d</key><true/><key>d</key><false/></dict>",
       R"({"a\/":{"b":"c"},"d":false})"},
      {"<data>AAAA</data>", ""},
      {"<array><date>2020-01-02T03:04:05Z</date></array>", ""},
      {"<dict><key>a</key><real>nan</real></dict>", ""},
      {"<real>-infinity</real>", ""},
  };
  for (const auto& [value, json] : rows) {
    WriteFile(kDictionary,
              Xml("<key>CFBundleShortVersionString</key>"s + value +
                  "<key>NSHumanReadableCopyright</key><string>C</string>"));
    EXPECT_EQ(InfoOf(kDictionary).value_or(R"({"Copyright":"C","Version":})"),
              R"({"Copyright":"C","Version":)"s + json + "}")
        << value;
  }
}

TEST_F(BundleInformationTest, ReadsBinaryDictionaries) {
  const std::string key = "\x5f\x10\x12"s + "CFBundleIdentifier";
  WriteFile(kDictionary, Binary({"\xd1\1\2", key, "\x56\x1\x1f\b\f/a"}));
  EXPECT_EQ(InfoOf(kDictionary),
            "{\"ProductName\":\"\\u0001\\u001f\\b\\f\\/a\"}");
  WriteFile(kDictionary, Binary({"\xd1\1\2", key, "\x80\1"}));  // A reference.
  EXPECT_EQ(InfoOf(kDictionary), std::nullopt);
  // A text of 1 MiB that an array of arrays has 10,000 times.
  const auto array = [](char item) {
    return "\xaf\x10\x64"s + std::string(100, item);
  };
  WriteFile(kDictionary,
            Binary({"\xd1\1\2", key, array(3), array(4),
                    "\x5f\x12\0\x10\0\0"s + std::string(1 << 20, 'a')}));
  EXPECT_EQ(InfoOf(kDictionary), std::nullopt);
}

TEST_F(BundleInformationTest, FilesThatAreNoDictionary) {
  WriteFile(kRoot + "list", Xml("<key>CFBundleIdentifier</key><true/>"));
  fs::create_directories(kRoot + "A.app/Contents");
  fs::create_symlink(kRoot + "list", kDictionary);
  EXPECT_EQ(InfoOf(kDictionary), "{\"ProductName\":true}");
  fs::remove(kDictionary);
  ASSERT_EQ(::mkfifo(kDictionary.c_str(), 0600), 0);
  EXPECT_EQ(InfoOf(kDictionary), "{}");  // At once, though nobody writes.
  fs::remove(kDictionary);
  WriteFile(kDictionary, "<plist><null/></plist>");
  EXPECT_EQ(InfoOf(kDictionary), "{}");
  fs::resize_file(kDictionary, uint64_t{1} << 40);
  EXPECT_EQ(InfoOf(kDictionary), "{}");
}

TEST_F(BundleInformationTest, SizesAndArguments) {
  WriteFile(kDictionary,
            Xml("<key>CFBundleIdentifier</key><string>a</string>"));
  const std::string json = R"({"ProductName":"a"})";
  for (const uint32_t capacity : {0u, 18u, 19u, ~0u}) {
    std::string buffer(20, '#');
    uint32_t size = capacity;
    EXPECT_EQ(GetExecutableInfo(kDictionary.c_str(), buffer.data(), &size), 1u);
    EXPECT_EQ(size, json.size());
    EXPECT_EQ(buffer, capacity < 19 ? std::string(20, '#') : json + '#');
  }
  char buffer[64];
  uint32_t size = sizeof buffer;
  EXPECT_EQ(GetExecutableInfo(nullptr, buffer, &size), 0u);
  EXPECT_EQ(GetExecutableInfo(kDictionary.c_str(), nullptr, &size), 0u);
  EXPECT_EQ(GetExecutableInfo(kDictionary.c_str(), buffer, nullptr), 0u);
  EXPECT_EQ(InfoOf(kRoot + "A.app/none"), std::nullopt);
  WriteFile(kRoot + "A.app/\xff", "");
  EXPECT_EQ(InfoOf(kRoot + "A.app/\xff"), std::nullopt);
}

}  // namespace
}  // namespace zu::test
