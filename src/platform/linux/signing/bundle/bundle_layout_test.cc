#include "platform/linux/signing/bundle/bundle_layout.h"

#include <gtest/gtest.h>
#include <filesystem>

#include "tests/support/test_tree.h"

namespace zu::platform {
namespace {

// A line of a tree: a dictionary that names the executable.
std::string Info(const std::string& directory, const std::string& executable) {
  return directory + "/Info.plist=<plist><dict><key>CFBundleExecutable</key>" +
         "<string>" + executable + "</string></dict></plist> ";
}

// The way from one part to another.
std::string Way(const std::string& from, const std::string& to) {
  return to.empty()
             ? "-"
             : std::filesystem::path(to).lexically_relative(from).string();
}

TEST(BundleLayoutTest, FindsPartsAndWayBack) {
  const std::string info = Info("A.app/Contents", "Run");
  const struct {
    const char* name;
    std::string tree;
    const char* path = "A.app";
    // Root, base below it, dictionary and executable below that; empty: it is
    // no bundle.
    const char* parts = "";
  } cases[] = {
      {"through links",
       info + "A.app/Contents/MacOS/Run=x A.app/Contents/MacOS/x=x link>A.app",
       "link/", "A.app Contents Info.plist MacOS/Run"},
      {"named like the bundle, broken dictionary",
       "A.b.kext/Contents/Info.plist=<dict> A.b.kext/Contents/MacOS/A.b=x",
       "A.b.kext", "A.b.kext Contents Info.plist MacOS/A.b"},
      {"framework with versions",
       Info("F.framework/Versions/B/Resources", "F") +
           "F.framework/Versions/B/F=x F.framework/Versions/Current>B",
       "F.framework", "F.framework/Versions/B . Resources/Info.plist F"},
      {"flat", Info("A.app", "Run") + "A.app/Run=x", "A.app",
       "A.app . Info.plist Run"},
      {"without code", "A.app/Contents/Info.plist=<dict/>", "A.app",
       "A.app Contents Info.plist -"},
      {"without dictionary", "A.app/Contents/MacOS/A=x", "A.app",
       "A.app Contents - MacOS/A"},
      {"executable elsewhere",
       Info("A.app/Contents", "../../../Run") + "Run=x"},
      {"directory is a link",
       info + "A.app/Contents/MacOS>../../bin bin/Run=x"},
      {"dictionary is a link",
       "A.app/Contents/Info.plist>../../x x=<dict/> A.app/Contents/MacOS/A=x"},
      {"version elsewhere",
       Info("B/Resources", "F") + "F.framework/Versions/Current>../../B B/F=x",
       "F.framework"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const test::TestTree tree;
    tree.PutAll(c.tree);
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
    // Other files beside it are of no bundle.
    EXPECT_FALSE(FindBundleOfExecutable(
        std::filesystem::path(layout->executable).replace_filename("x")));
  }
}

}  // namespace
}  // namespace zu::platform
