#include "platform/linux/signing/requirement.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>

#include "platform/linux/signing/certificate_facts.h"
#include "tests/support/test_authority.h"

namespace zu::platform {
namespace {

using namespace std::string_literals;

CertificateFacts Certificate(std::string common_name) {
  CertificateFacts facts;
  facts.subject[0] = std::move(common_name);
  return facts;
}

// Leaf "L", then "I", then root "R"; only the leaf has an organisation.
SignatureFacts Facts() {
  SignatureFacts facts;
  facts.certificates = {Certificate("L"), Certificate("I"), Certificate("R")};
  facts.certificates[0].subject[1] = "team";
  facts.certificates[0].subject[2] = "a\"b\\c";
  facts.identifier = "id";
  facts.anchor_trusted = true;
  return facts;
}

// "@" stands for what is true, "#" for what is false.
std::string Expand(const std::string& text) {
  std::string expanded;
  for (const char c : text) {
    expanded += c == '@'   ? "anchor trusted"
                : c == '#' ? "identifier \"x\""
                           : std::string(1, c);
  }
  return expanded;
}

std::string Nested(const char* open, const char* close, int depth) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += open;
  text += '@';
  for (int i = 0; i < depth; ++i) text += close;
  return text;
}

TEST(RequirementTest, Evaluates) {
  const std::string satisfied[] = {
      "@",
      " \t\r\nanchor\ntrusted ",
      "identifier \"id\"",
      "certificate leaf [subject.CN] = \"L\"",
      "certificate leaf[subject.CN]=\"L\"",
      "certificate 0 [subject.CN] = \"L\"",
      "certificate 1 [ subject.CN ] = \"I\"",
      "certificate root [subject.CN] = \"R\"",
      "certificate -1 [subject.CN] = \"R\"",
      "certificate -3 [subject.CN] = \"L\"",
      "certificate leaf [subject.OU] = \"team\"",
      "certificate leaf [subject.O] = \"a\\\"b\\\\c\"",
      "@ or @ and #",
      "# and @ or @",
      "!(# and #)",
      "! ! @",
      "# or # or @",
      Nested("(", ")", kMaxExpressionDepth),
      Nested("!", "", kMaxExpressionDepth)};
  const std::string unsatisfied[] = {
      "#",
      "certificate 3 [subject.CN] = \"R\"",
      "certificate -4 [subject.CN] = \"L\"",
      "certificate -2147483648 [subject.CN] = \"L\"",
      "certificate leaf [subject.OU] = \"Team\"",
      "certificate leaf [subject.OU] = \"tea\"",
      "certificate leaf [subject.OU] = \"teams\"",
      "certificate leaf [subject.OU] = \"team\0\""s,
      "certificate root [subject.OU] = \"\"",
      "(@ or @) and #",
      "!# and #",
      "@ and @ and #"};
  const auto check = [](const std::string& text, bool expected) {
    SCOPED_TRACE(text.substr(0, 80));
    const std::optional<Expression> rule = ParseRequirement(Expand(text));
    ASSERT_TRUE(rule);
    EXPECT_EQ(Satisfies(Facts(), *rule), expected);
  };
  for (const std::string& text : satisfied) check(text, true);
  for (const std::string& text : unsatisfied) check(text, false);
}

TEST(RequirementTest, RefusesWhatIsNotTheLanguage) {
  const std::string texts[] = {"certificate 2147483648 [subject.CN] = \"L\"",
                               "certificate 1.0 [subject.CN] = \"I\"",
                               "certificate leaf [subject.C] = \"L\"",
                               Nested("(", ")", kMaxExpressionDepth + 1),
                               Nested("!(", ")", 1000000),
                               Nested("(", "", 1000000),
                               "",
                               "anchor",
                               "anchor trustedx",
                               "anchor apple",
                               "@ @",
                               "@ and",
                               "@ and or @",
                               "@ && @",
                               "and @",
                               "(@",
                               "@)",
                               "()",
                               "!",
                               "identifier id",
                               "identifier \"id",
                               "identifier \"id\\\"",
                               "identifier \"id\\",
                               "certificate [subject.CN] = \"L\"",
                               "certificate leaf subject.CN = \"L\"",
                               "certificate leaf [subject.CN = \"L\"",
                               "certificate leaf [subject.CN] \"L\"",
                               "certificate leaf [subject.CN] = L",
                               "@\0"s};
  for (const std::string& text : texts) {
    EXPECT_FALSE(ParseRequirement(Expand(text))) << text.substr(0, 80);
  }
}

// Names as certificates really carry them: what counts is all of the one name.
TEST(RequirementTest, ReadsNamesOfCertificates) {
  const std::string name = test::kDeveloperIdName;
  const struct {
    std::vector<std::string> common_names;
    bool satisfied;
  } cases[] = {
      {{name}, true},
      {{name + "\0"s}, false},
      {{name + "\0.evil"s}, false},
      {{"\0"s + name}, false},
      {{}, false},
      {{name, "other"}, false},
      {{"other", name}, false},
      {{name, name}, false},
  };
  const auto rule =
      ParseRequirement("certificate leaf [subject.CN] = \"" + name + "\"");
  ASSERT_TRUE(rule.has_value());
  const test::TestAuthority authority;
  for (const auto& c : cases) {
    const test::Credential credential =
        authority.Issue({.common_names = c.common_names});
    const BioPtr bio(
        BIO_new_mem_buf(credential.certificates.c_str(),
                        static_cast<int>(credential.certificates.size())));
    const CertificatePtr leaf(
        PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    ASSERT_TRUE(leaf);
    SignatureFacts facts;
    facts.certificates = {FactsOf(*leaf)};
    EXPECT_EQ(Satisfies(facts, *rule), c.satisfied)
        << ::testing::PrintToString(c.common_names);
  }
}

}  // namespace
}  // namespace zu::platform
