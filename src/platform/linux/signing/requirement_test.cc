#include "platform/linux/signing/requirement.h"

#include <gtest/gtest.h>
#include <span>
#include <sstream>

#include "platform/linux/signing/certificate_facts.h"
#include "tests/support/test_authority.h"

namespace zu::platform {
namespace {

using namespace std::string_literals;

std::vector<std::byte> Bytes(size_t count, char value) {
  return std::vector<std::byte>(count, static_cast<std::byte>(value));
}

// Leaf "L", then "I", then root "R", which is trusted.
SignatureFacts Facts() {
  SignatureFacts facts;
  facts.certificates = {{{{"subject.CN", "L"},
                          {"subject.OU", "team"},
                          {"subject.O", "a\"b\\c"},
                          {"subject.UID", std::nullopt},
                          {"field.1.2.3", "text"}},
                         Bytes(20, '\xaa'),
                         Bytes(32, 'a')},
                        {{{"subject.CN", "I"}}, Bytes(20, '\xbb'), {}},
                        {{{"subject.CN", "R"}}, Bytes(20, '\xcc'), {}}};
  facts.identifier = "id";
  facts.cdhashes = {Bytes(20, '\x11'), Bytes(20, '\x22')};
  facts.anchor_trusted = true;
  return facts;
}

// H"a0" becomes a digest of twenty such bytes.
std::string WithDigests(std::string text) {
  const size_t start = text.find("H\"") + 2;
  if (start < 2) return text;
  const std::string digits = text.substr(start, 2);
  for (int i = 1; i < 20; ++i) text.insert(start, digits);
  return text;
}

std::string Nested(int depth) {
  return std::string(depth, '(') + "true" + std::string(depth, ')');
}

// The parts of a text between semicolons.
std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, ';');) {
    parts.push_back(part);
  }
  return parts;
}

TEST(RequirementTest, Evaluates) {
  std::vector<std::string> satisfied = Split(R"(
      anchor trusted; identifier "id"; identifier = id; cdhash H"22";
      cert leaf = H"aA"; anchor = H"CC"; cert 2 trusted;
      anchor [subject.CN] = R; certificate leaf[subject.CN]="L";
      cert 1 [subject.CN] = I; cert -3 [subject.CN] = L;
      cert leaf [subject.O] = "a\"b\\c"; cert leaf [subject.UID];
      cert 0 [field.1.2.3] /* exists */ and cert 0 [subject.OU] exists;
      cert leaf [subject.OU] = te*; cert leaf [subject.OU] = *"am";
      cert leaf [subject.OU] = *ea*; true or true and false;
      ! ! true; /* or never */ anchor// never
      trusted # and never)");
  satisfied.push_back(Nested(kMaxExpressionDepth));
  std::vector<std::string> unsatisfied = Split(R"(
      never; identifier ID; cdhash H"33"; anchor apple; anchor apple generic;
      cert leaf = H"bb"; cert 3 = H"cc"; cert leaf trusted; cert 3 trusted;
      cert 3 [subject.CN] = R; cert -2147483647 [subject.CN];
      cert root [subject.OU] = ""; cert leaf [subject.UID] = ""*;
      cert leaf [subject.OU] = tea; cert leaf [subject.OU] = ea*;
      cert leaf [subject.OU] = *ea; cert leaf [subject.OU] = "te*";
      (true or true) and false; !false and false; cert 0 [subject.OU] = "team)"
                                               "\0\""s);
  for (const auto* texts : {&satisfied, &unsatisfied}) {
    for (const std::string& text : *texts) {
      const auto rule = ParseRequirement(WithDigests(text));
      ASSERT_TRUE(rule) << text;
      EXPECT_EQ(Satisfies(Facts(), *rule), texts == &satisfied) << text;
    }
  }
}

TEST(RequirementTest, RefusesWhatIsNotTheLanguage) {
  std::vector<std::string> texts = Split(R"( ;
      anchor trustedx; true true; true and; true && true; (true; true); ();
      true /* or; identifier a-b; identifier "id; identifier "id\"; cert leaf;
      cert leaf [subject.CN = L; cert leaf [subject.CN] L;
      cert leaf [subject.CN] = *; cert 1.0 [subject.CN]; cert - [subject.CN];
      cert 2147483648 [subject.CN]; cert leaf [subject.XX];
      cert leaf [field.1..2]; cdhash H"00"; cdhash H"00)");
  const std::string zeros(38, '0');
  texts.insert(texts.end(),
               {"true\0"s, "cdhash H\"" + zeros + "000\"",
                "cdhash H\"" + zeros + "0x\"", Nested(kMaxExpressionDepth + 1),
                "true" + std::string(kMaxRequirementSize, ' ')});
  for (const std::string& text : texts) {
    EXPECT_FALSE(ParseRequirement(text)) << text.substr(0, 80);
  }
}

TEST(RequirementTest, KnowsChainsOfApples) {
  // As published for "Apple Root CA - G2".
  const uint8_t digest[] = {0xc2, 0xb9, 0xb0, 0x42, 0xdd, 0x57, 0x83, 0x0e,
                            0x7d, 0x11, 0x7d, 0xac, 0x55, 0xac, 0x8a, 0xe1,
                            0x94, 0x07, 0xd3, 0x8e, 0x41, 0xd8, 0x8f, 0x32,
                            0x15, 0xbc, 0x3a, 0x89, 0x04, 0x44, 0xa0, 0x50};
  const auto bytes = std::as_bytes(std::span(digest));
  SignatureFacts facts = Facts();
  auto& certificates = facts.certificates;
  const auto evaluate = [&] {
    return std::pair(Satisfies(facts, *ParseRequirement("anchor apple")),
                     Satisfies(facts, *ParseRequirement("anchor apple "
                                                        "generic")));
  };
  certificates[2].sha256.assign(bytes.begin(), bytes.end());
  EXPECT_EQ(evaluate(), std::pair(false, true));
  certificates[1].fields["subject.CN"] =
      "Apple Code Signing Certification Authority";
  facts.anchor_trusted = false;
  EXPECT_EQ(evaluate(), std::pair(true, true));
  certificates.push_back(certificates[0]);  // Apple's is no longer the root.
  EXPECT_EQ(evaluate(), std::pair(false, false));
}

// What counts is all of the one name or extension.
TEST(CertificateFactsTest, HasNamesAndExtensions) {
  const auto context = CryptoContext::Create();
  const test::TestAuthority authority;
  const auto fields = [&](const test::LeafOptions& options) {
    const std::string pem = authority.Issue(options).certificates;
    return FactsOf(*test::ReadCertificates(*context, pem).front()).fields;
  };
  const auto one = fields(
      {.common_names = {"name\0"s},
       .extensions = {{"1.2.3.1", "DER:0c026869"}, {"1.2.3.2", "DER:0500"}}});
  EXPECT_EQ(one.at("subject.CN"), "name\0"s);
  EXPECT_EQ(one.at("field.1.2.3.1"), "hi");
  EXPECT_EQ(one.at("field.1.2.3.2"), "\x05\x00"s);
  EXPECT_EQ(fields({.common_names = {"other", "name"}}).at("subject.CN"),
            std::nullopt);
}

}  // namespace
}  // namespace zu::platform
