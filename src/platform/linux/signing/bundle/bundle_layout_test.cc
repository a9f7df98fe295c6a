#include "platform/linux/signing/bundle/bundle_layout.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <filesystem>

#include "tests/support/test_tree.h"

namespace zu::platform {
namespace {

// Of these lines each "@NAME" is a dictionary that names the executable.
void Put(const test::TestTree& tree, std::string lines) {
  for (size_t at; (at = lines.find('@')) != lines.npos;) {
    const size_t end = std::min(lines.find(' ', at), lines.size());
    lines.insert(end, "</string></dict></plist>")
        .replace(at, 1, "<plist><dict><key>CFBundleExecutable</key><string>");
  }
  tree.PutAll(lines);
}

// The way from one part to another.
std::string Way(const std::string& from, const std::string& to) {
  return to.empty()
             ? "-"
             : std::filesystem::path(to).lexically_relative(from).string();
}

TEST(BundleLayoutTest, FindsPartsAndWayBack) {
  const std::string info = "A.app/Contents/Info.plist=@Run ";
  const struct {
    const char* name;
    std::string tree;
    const char* path = "A.app";
    // Root, base below it, dictionary and executable below that; empty: it is
    // no bundle.
    const char* parts = "";
  } cases[] = {
      {"through links", info + "A.app/Contents/MacOS/Run=x link>A.app", "link/",
       "A.app Contents Info.plist MacOS/Run"},
      {"named like the bundle, broken dictionary",
       "A.b.kext/Contents/Info.plist=<dict> A.b.kext/Contents/MacOS/A.b=x",
       "A.b.kext", "A.b.kext Contents Info.plist MacOS/A.b"},
      {"framework with versions",
       "F.framework/Versions/B/Resources/Info.plist=@F "
       "F.framework/Versions/B/F=x F.framework/Versions/A/F=x "
       "F.framework/Versions/Current>B F.framework/F>Versions/Current/F "
       "F.framework/Resources>Versions/Current/Resources",
       "F.framework", "F.framework/Versions/B . Resources/Info.plist F"},
      {"framework without versions",
       "F.framework/Resources/Info.plist=@F F.framework/F=x", "F.framework",
       "F.framework . Resources/Info.plist F"},
      {"flat", "A.app/Info.plist=@Run A.app/Run=x", "A.app",
       "A.app . Info.plist Run"},
      {"without code", "A.app/Contents/Info.plist=<dict/>", "A.app",
       "A.app Contents Info.plist -"},
      {"without dictionary", "A.app/Contents/MacOS/A=x", "A.app",
       "A.app Contents - MacOS/A"},
      {"neither", "A.app/Contents/x=x"},
      {"executable elsewhere", "A.app/Contents/Info.plist=@../../../Run Run=x"},
      {"executable is a link",
       info + "A.app/Contents/MacOS/Run>../../../x x=x"},
      {"directory is a link",
       info + "A.app/Contents/MacOS>../../bin bin/Run=x"},
      {"dictionary is a link",
       "A.app/Contents/Info.plist>../../x x=<dict/> A.app/Contents/MacOS/A=x"},
      {"version elsewhere",
       "F.framework/Versions/Current>../../B B/F=x B/Resources/Info.plist=@F",
       "F.framework"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const test::TestTree tree;
    Put(tree, c.tree);
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
  Put(tree,
      "A.app/Contents/Info.plist=@Run A.app/Contents/MacOS/Run=x "
      "A.app/Contents/MacOS/Other=x A.app/Contents/Resources/Run=x");
  for (const char* file : {"MacOS/Other", "Resources/Run"}) {
    EXPECT_FALSE(FindBundleOfExecutable(tree.Path("A.app/Contents/") + file))
        << file;
  }
}

}  // namespace
}  // namespace zu::platform
