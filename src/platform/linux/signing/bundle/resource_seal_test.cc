#include "platform/linux/signing/bundle/resource_seal.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vector>

#include "tests/support/test_tree.h"

namespace zu::platform {
namespace {

// Digests of "hello".
constexpr char kSha1[] = "<data>qvTGHdzF6KLavt4PO0gs2a6pQ00=</data>";
constexpr char kSha256[] =
    "<data>LPJNul+wow4m6DsqxbninhsWHlwfp0JecwQzYpOLmCQ=</data>";

// A dictionary out of names and values.
using Fields = std::vector<std::pair<std::string, std::string>>;
std::string Dictionary(const Fields& fields) {
  std::string text = "<dict>";
  for (const auto& [key, value] : fields) {
    text += "<key>" + key + "</key>" + value;
  }
  return text + "</dict>";
}

std::shared_ptr<const ResourceSeal> Parse(const std::string& text) {
  return ResourceSeal::Parse(std::as_bytes(std::span(text)));
}

const std::string kCode =
    Dictionary({{"requirement", "<string>good</string>"}});

const Fields kFiles2 = {
    {"Resources/a", Dictionary({{"hash", kSha1}, {"hash2", kSha256}})},
    {"Resources/b", Dictionary({{"hash", kSha1}})},
    {"Resources/en.lproj/c",
     Dictionary({{"hash2", kSha256}, {"optional", "<true/>"}})},
    {"Resources/link", Dictionary({{"symlink", "<string>a</string>"}})},
    {"Frameworks/F.framework", kCode},
    {"MacOS/tool", kCode},
};
const Fields kRules2 = {
    {"^.*", "<true/>"},
    {"^Frameworks/|^MacOS/",
     Dictionary({{"nested", "<true/>"}, {"weight", "<integer>10</integer>"}})},
    {"^Resources/", "<integer>20</integer>"},
    {"\\.lproj/",
     Dictionary({{"optional", "<true/>"}, {"weight", "<real>1000</real>"}})},
    {"^Resources/skip|\\.DS_Store$",
     Dictionary({{"omit", "<true/>"}, {"weight", "<integer>30</integer>"}})},
};
const char kTree[] = R"(Resources/a=hello Resources/b=hello Resources/link>a
    Resources/skip.txt=x Resources/skipped/file=x Frameworks/F.framework/F=x
    Frameworks/.DS_Store=x MacOS/tool=x MacOS/Run=x _MASReceipt/receipt=x
    _CodeSignature/CodeResources=x
    CodeResources>_CodeSignature/CodeResources)";

// What one seal says about the tree after each of some changes.
struct Change {
  const char* name;
  std::string lines;
  int32_t expected = -67054;
  std::string pipe = "";  // To be made.
};

void Verify(const std::string& text, const std::vector<Change>& changes) {
  const auto context = CryptoContext::Create();
  const auto seal = Parse(text);
  ASSERT_TRUE(seal);
  for (const Change& change : changes) {
    SCOPED_TRACE(change.name);
    const test::TestTree tree;
    tree.PutAll(kTree);
    tree.PutAll(change.lines);
    if (!change.pipe.empty()) {
      ASSERT_EQ(::mkfifo(tree.Path(change.pipe).c_str(), 0600), 0);
    }
    BundleLayout bundle;
    bundle.root = bundle.resource_base = tree.root();
    bundle.executable = tree.Path("MacOS/Run");
    uint64_t budget = 1000;
    std::vector<ResourceSeal::NestedCode> nested;
    const auto verify = [&] {
      return seal->VerifyResources(*context, bundle, budget, nested);
    };
    EXPECT_EQ(verify(), change.expected);
    for (const auto& code : nested) EXPECT_EQ(code.requirement, "good");
    if (change.expected != 0) continue;
    EXPECT_LT(budget, 1000u);
    budget = 5;
    EXPECT_EQ(verify(), -67054);
  }
}

TEST(ResourceSealTest, ComparesSecondGeneration) {
  Verify(Dictionary({{"files", "<dict/>"},
                     {"rules", "<dict/>"},
                     {"files2", Dictionary(kFiles2)},
                     {"rules2", Dictionary(kRules2)}}),
         {
             {"as sealed", "", 0},
             {"changed", "Resources/a=hullo"},
             {"changed, SHA-1 only", "Resources/b=hullo"},
             {"missing", "-Resources/a"},
             {"added", "Resources/d=x"},
             {"omitted changed", "Resources/skip.txt=x a/.DS_Store=x", 0},
             {"below an omitted name", "a/.DS_Store/new=x"},
             {"link beginning alike", "Resources/link>ab"},
             {"pipe for file", "-Resources/a", -67016, "Resources/a"},
             {"inside nested code", "Frameworks/F.framework/new=x", 0},
             {"nested code missing", "-MacOS/tool"},
         });
}

TEST(ResourceSealTest, ComparesFirstGeneration) {
  const Fields files = {{"Resources/a", kSha1},
                        {"Resources/b", Dictionary({{"hash", kSha1}})}};
  const Fields rules = {
      {"^Resources/[^.]*$", "<true/>"},
      {"/skipped/",
       Dictionary({{"omit", "<true/>"}, {"weight", "<real>2</real>"}})}};
  Verify(
      Dictionary({{"files", Dictionary(files)}, {"rules", Dictionary(rules)}}),
      {
          {"as sealed", "", 0},
          {"changed", "Resources/a=hullo"},
          {"link changed", "Resources/link>b", 0},
          {"no rule for it", "MacOS/tool=x Other/d=x", 0, "pipe"},
      });
}

TEST(ResourceSealTest, RefusesWhatIsNoSeal) {
  const auto with = [](const std::string& entry,
                       const std::string& expression = "^.*") {
    return Dictionary({{"files2", Dictionary({{"a", entry}})},
                       {"rules2", Dictionary({{expression, "<true/>"}})}});
  };
  EXPECT_TRUE(Parse(with(kSha1)));
  const std::pair<const char*, std::string> refused[] = {
      {"files only", Dictionary({{"files2", "<dict/>"}})},
      {"entry without content", with("<dict/>")},
      {"digest that is text",
       with(Dictionary({{"hash", kSha1}, {"hash2", "<string>x</string>"}}))},
      {"open bracket", with(kSha1, "^[")},
      {"too large when compiled", with(kSha1, "((a{100}){100}){100}")},
      {"too long", with(kSha1, std::string(5000, 'a'))},
  };
  testing::internal::CaptureStderr();
  for (const auto& [name, text] : refused) {
    EXPECT_FALSE(Parse(text)) << name;
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace zu::platform
