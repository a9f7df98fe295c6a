#include "platform/linux/signing/bundle/bundle_layout.h"

#include <gtest/gtest.h>
#include <filesystem>
#include <vector>

#include "tests/support/test_tree.h"

namespace zu::platform {
namespace {

std::string Info(const std::string& executable) {
  return "Info.plist=<plist><dict><key>CFBundleExecutable</key><string>" +
         executable + "</string></dict></plist>";
}

// The way from one part to another.
std::string Way(const std::string& from, const std::string& to) {
  return to.empty()
             ? "-"
             : std::filesystem::path(to).lexically_relative(from).string();
}

TEST(BundleLayoutTest, FindsPartsAndWayBack) {
  const struct {
    const char* name;
    std::vector<std::string> tree;
    const char* path;
    // Root, base below it, dictionary and executable below that; empty: it is
    // no bundle.
    const char* parts = "";
  } cases[] = {
      {"through links",
       {"A.kext/Contents/" + Info("Run"), "A.kext/Contents/MacOS/Run=x",
        "link>A.kext"},
       "link/",
       "A.kext Contents Info.plist MacOS/Run"},
      {"named like the bundle, broken dictionary",
       {"A.b.plugin/Contents/Info.plist=<dict>",
        "A.b.plugin/Contents/MacOS/A.b=x"},
       "A.b.plugin",
       "A.b.plugin Contents Info.plist MacOS/A.b"},
      {"framework with versions",
       {"F.framework/Versions/B/Resources/" + Info("F"),
        "F.framework/Versions/B/F=x", "F.framework/Versions/A/F=x",
        "F.framework/Versions/Current>B", "F.framework/F>Versions/Current/F",
        "F.framework/Resources>Versions/Current/Resources"},
       "F.framework",
       "F.framework/Versions/B . Resources/Info.plist F"},
      {"framework without versions",
       {"F.framework/Resources/" + Info("F"), "F.framework/F=x"},
       "F.framework",
       "F.framework . Resources/Info.plist F"},
      {"flat",
       {"A.appex/" + Info("Run"), "A.appex/Run=x"},
       "A.appex",
       "A.appex . Info.plist Run"},
      {"without code",
       {"A.bundle/Contents/Info.plist=<dict/>"},
       "A.bundle",
       "A.bundle Contents Info.plist -"},
      {"without dictionary",
       {"A.app/Contents/MacOS/A=x"},
       "A.app",
       "A.app Contents - MacOS/A"},
      {"neither", {"A.app/Contents/x=x"}, "A.app"},
      {"executable elsewhere",
       {"A.app/Contents/" + Info("../../../Run"), "Run=x"},
       "A.app"},
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
    const std::optional<BundleLayout> layout = FindBundle(tree.Path(c.path));
    ASSERT_EQ(layout.has_value(), *c.parts != '\0');
    if (!layout) continue;
    const std::string& base = layout->resource_base;
    EXPECT_EQ(Way(tree.root(), layout->root) + ' ' + Way(layout->root, base) +
                  ' ' + Way(base, layout->info_dictionary) + ' ' +
                  Way(base, layout->executable),
              c.parts);
    if (layout->executable.empty()) continue;
    const auto back = FindBundleOfExecutable(layout->executable);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->root, layout->root);
  }
}

TEST(BundleLayoutTest, OtherFilesAreOfNoBundle) {
  const test::TestTree tree;
  tree.Put("A.app/Contents/" + Info("Run"));
  tree.Put("A.app/Contents/MacOS/Run=x");
  for (const char* file :
       {"A.app/Contents/MacOS/Other", "A.app/Contents/Resources/Run"}) {
    tree.Put(std::string(file) + "=x");
    EXPECT_FALSE(FindBundleOfExecutable(tree.Path(file))) << file;
  }
}

}  // namespace
}  // namespace zu::platform
