#include "platform/linux/signing/bundle/bundle_layout.h"

#include <gtest/gtest.h>
#include <vector>

#include "tests/support/test_tree.h"

namespace zu::platform {
namespace {

std::string Info(const std::string& executable) {
  return "Info.plist=<plist><dict><key>CFBundleExecutable</key><string>" +
         executable + "</string></dict></plist>";
}

TEST(BundleLayoutTest, FindsPartsAndWayBack) {
  const struct {
    const char* name;
    std::vector<std::string> tree;
    const char* path;
    // Absent parts are empty; no root: it is no bundle.
    const char* root = "";
    const char* base = "";
    const char* info = "";
    const char* executable = "";
  } cases[] = {
      {"application",
       {"A.app/Contents/" + Info("Run"), "A.app/Contents/MacOS/Run=x"},
       "A.app",
       "A.app",
       "A.app/Contents",
       "A.app/Contents/Info.plist",
       "A.app/Contents/MacOS/Run"},
      {"through links",
       {"A.kext/Contents/" + Info("Run"), "A.kext/Contents/MacOS/Run=x",
        "link>A.kext"},
       "link/",
       "A.kext",
       "A.kext/Contents",
       "A.kext/Contents/Info.plist",
       "A.kext/Contents/MacOS/Run"},
      {"named like the bundle, broken dictionary",
       {"A.b.plugin/Contents/Info.plist=<dict>",
        "A.b.plugin/Contents/MacOS/A.b=x"},
       "A.b.plugin",
       "A.b.plugin",
       "A.b.plugin/Contents",
       "A.b.plugin/Contents/Info.plist",
       "A.b.plugin/Contents/MacOS/A.b"},
      {"framework with versions",
       {"F.framework/Versions/B/Resources/" + Info("F"),
        "F.framework/Versions/B/F=x", "F.framework/Versions/A/F=x",
        "F.framework/Versions/Current>B", "F.framework/F>Versions/Current/F",
        "F.framework/Resources>Versions/Current/Resources"},
       "F.framework",
       "F.framework/Versions/B",
       "F.framework/Versions/B",
       "F.framework/Versions/B/Resources/Info.plist",
       "F.framework/Versions/B/F"},
      {"another version",
       {"F.framework/Versions/A/Resources/" + Info("F"),
        "F.framework/Versions/A/F=x", "F.framework/Versions/B/F=x",
        "F.framework/Versions/Current>B"},
       "F.framework/Versions/A",
       "F.framework/Versions/A",
       "F.framework/Versions/A",
       "F.framework/Versions/A/Resources/Info.plist",
       "F.framework/Versions/A/F"},
      {"framework without versions",
       {"F.framework/Resources/" + Info("F"), "F.framework/F=x"},
       "F.framework",
       "F.framework",
       "F.framework",
       "F.framework/Resources/Info.plist",
       "F.framework/F"},
      {"flat",
       {"A.appex/" + Info("Run"), "A.appex/Run=x"},
       "A.appex",
       "A.appex",
       "A.appex",
       "A.appex/Info.plist",
       "A.appex/Run"},
      {"without code",
       {"A.bundle/Contents/Info.plist=<dict/>"},
       "A.bundle",
       "A.bundle",
       "A.bundle/Contents",
       "A.bundle/Contents/Info.plist"},
      {"without dictionary",
       {"A.app/Contents/MacOS/A=x"},
       "A.app",
       "A.app",
       "A.app/Contents",
       "",
       "A.app/Contents/MacOS/A"},
      {"neither", {"A.app/Contents/x=x"}, "A.app"},
      {"any directory", {"bin/tool=x"}, "bin"},
      {"file", {"tool=x"}, "tool"},
      {"nothing", {}, "A.app"},
      {"executable missing",
       {"A.app/Contents/" + Info("Run"), "A.app/Contents/MacOS/A=x"},
       "A.app"},
      {"executable elsewhere",
       {"A.app/Contents/" + Info("../../../Run"), "Run=x",
        "A.app/Contents/MacOS/A=x"},
       "A.app"},
      {"executable is a directory", {"A/" + Info("..")}, "A"},
      {"executable is a link",
       {"A.app/Contents/" + Info("Run"), "A.app/Contents/MacOS/Run>../../../x",
        "x=x"},
       "A.app"},
      {"directory is a link",
       {"A.app/Contents/" + Info("Run"), "A.app/Contents/MacOS>../../bin",
        "bin/Run=x"},
       "A.app"},
      {"dictionary is a link",
       {"A.app/Contents/Info.plist>../../x", "x=<dict/>",
        "A.app/Contents/MacOS/A=x"},
       "A.app"},
      {"version elsewhere",
       {"F.framework/Versions/Current>../../B", "B/F=x",
        "B/Resources/" + Info("F")},
       "F.framework"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const test::TestTree tree;
    for (const std::string& line : c.tree) tree.Put(line);
    const auto absolute = [&](const std::string& name) {
      return name.empty() ? name : tree.Path(name);
    };
    const std::optional<BundleLayout> layout = FindBundle(tree.Path(c.path));
    ASSERT_EQ(layout.has_value(), *c.root != '\0');
    if (!layout) continue;
    EXPECT_EQ(layout->root, absolute(c.root));
    EXPECT_EQ(layout->resource_base, absolute(c.base));
    EXPECT_EQ(layout->info_dictionary, absolute(c.info));
    EXPECT_EQ(layout->executable, absolute(c.executable));
    EXPECT_EQ(layout->signature_directory,
              absolute(c.base) + "/_CodeSignature");
    if (layout->executable.empty()) continue;
    const auto back = FindBundleOfExecutable(layout->executable);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->root, layout->root);
  }
}

TEST(BundleLayoutTest, OtherFilesAreOfNoBundle) {
  const test::TestTree tree;
  tree.Put("A.app/Contents/" + Info("Run"));
  for (const char* file :
       {"A.app/Contents/MacOS/Run", "A.app/Contents/MacOS/Other",
        "A.app/Contents/Resources/Run", "MacOS/Run"}) {
    tree.Put(std::string(file) + "=x");
  }
  EXPECT_TRUE(FindBundleOfExecutable(tree.Path("A.app/Contents/MacOS/Run")));
  for (const char* file : {"A.app/Contents/MacOS/Other", "MacOS/Run",
                           "A.app/Contents/Resources/Run", "A.app", "none"}) {
    EXPECT_FALSE(FindBundleOfExecutable(tree.Path(file))) << file;
  }
}

}  // namespace
}  // namespace zu::platform
