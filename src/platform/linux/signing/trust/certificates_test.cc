#include "platform/linux/signing/trust/certificates.h"

#include <gtest/gtest.h>
#include <ctime>

#include "platform/linux/signing/status.h"
#include "tests/support/test_authority.h"

namespace zu::platform {
namespace {

using test::LeafOptions;
using test::ReadCertificates;
using test::TestAuthority;

constexpr int64_t kDay = 86400;
constexpr ChainPolicy kPlain{};
constexpr ChainPolicy kLegacy{.accept_legacy_algorithms = true};
constexpr ChainPolicy kOwnRoot{.accept_own_root = true};
constexpr ChainPolicy kStamps{.purpose = ChainPurpose::kTimeStamping};
constexpr ChainPolicy kAnyUse{.purpose = ChainPurpose::kAny};

const std::string kNull("\x05\x00", 2);
// An extension that nobody knows, and two of the arc of markers.
const test::Extension kUnknown{"1.3.6.1.4.1.99999.1", kNull};
const test::Extension kMarker{"1.2.840.113635.100.6.1.13", kNull};
const test::Extension kNoMarker{"1.2.840.113635.100.60.1", kNull};

TEST(EvaluateChainTest, GivesTheStatusOfTheChain) {
  const auto context = CryptoContext::Create();
  const TestAuthority root;
  const TestAuthority below("Below", &root);
  const TestAuthority rsa_root(LeafOptions{
      .common_names = {"RSA"}, .extended_key_usage = "", .rsa_bits = 2048});
  const TestAuthority marked(
      LeafOptions{.common_names = {"Marked"}, .extensions = {kMarker}}, &root);
  const TestAuthority stranger("Stranger");
  const TestAuthority below_stranger("Below Stranger", &stranger);
  const std::string own_root = stranger.certificate();
  const StorePtr anchors(X509_STORE_new());
  for (const auto& anchor : ReadCertificates(
           *context, root.certificate() + rsa_root.certificate())) {
    X509_STORE_add_cert(anchors.get(), anchor.get());
  }
  const int64_t now = std::time(nullptr);
  const auto at = [now](int64_t days) {
    return ChainPolicy{.consider_expiration = true, .time = now + days * kDay};
  };
  const LeafOptions old{.valid_from_s = -30 * kDay, .valid_until_s = -9 * kDay};
  const LeafOptions stamps{.extended_key_usage = "critical,timeStamping"};
  const LeafOptions sha1{.digest = "SHA1"};
  const LeafOptions md5{.digest = "MD5"};

  const struct {
    const char* name;
    std::string certificates;
    ChainPolicy policy;
    int32_t status = 0;
    size_t length = 0;
    bool anchor_trusted = true;
  } cases[] = {
      {"plain", below.Issue().certificates, kPlain, 0, 3},
      {"leaf for anything", root.Issue({.extended_key_usage = ""}).certificates,
       kAnyUse, 0, 2},
      {"time-stamping for code", root.Issue(stamps).certificates, kPlain,
       kCertificateUsageInvalid},
      {"time-stamping below an issuer for code",
       TestAuthority("C", &root, "codeSigning").Issue(stamps).certificates,
       kStamps, kCertificateUsageInvalid},
      {"before its time", root.Issue(old).certificates, at(-40),
       kCertificateExpired},
      {"own root", below_stranger.Issue().certificates + own_root, kOwnRoot, 0,
       3, false},
      {"own root is missing", below_stranger.Issue().certificates, kOwnRoot,
       kCertificateNotTrusted},
      {"root that is an anchor, too",
       root.Issue().certificates + root.certificate(), kOwnRoot, 0, 2},
      {"own root's leaf for nothing",
       stranger.Issue({.extended_key_usage = ""}).certificates + own_root,
       kOwnRoot, kCertificateUsageInvalid},
      {"marked", marked.Issue({.extensions = {kMarker}}).certificates, kPlain,
       0, 3},
      {"unknown beside a marker",
       root.Issue({.extensions = {kMarker, kUnknown}}).certificates, kPlain,
       kCertificateNotTrusted},
      {"neighbour of the markers' arc",
       root.Issue({.extensions = {kNoMarker}}).certificates, kPlain,
       kCertificateNotTrusted},
      {"SHA-1", root.Issue(sha1).certificates, kPlain, kCertificateNotTrusted},
      {"SHA-1 in old code", root.Issue(sha1).certificates, kLegacy, 0, 2},
      {"RSA 1024", root.Issue({.rsa_bits = 1024}).certificates, kPlain,
       kCertificateNotTrusted},
      {"RSA 1024 in old code", root.Issue({.rsa_bits = 1024}).certificates,
       kLegacy, 0, 2},
      {"RSA 768 in old code", root.Issue({.rsa_bits = 768}).certificates,
       kLegacy, kCertificateNotTrusted},
      {"MD5 in old code", rsa_root.Issue(md5).certificates, kLegacy,
       kCertificateNotTrusted},
  };
  for (const auto& c : cases) {
    const auto certificates = ReadCertificates(*context, c.certificates);
    const ChainResult result =
        EvaluateChain(*context, *anchors, certificates, c.policy);
    EXPECT_EQ(result.status, c.status) << c.name;
    EXPECT_EQ(result.chain.size(), c.length) << c.name;
    EXPECT_EQ(result.anchor_trusted, c.status == 0 && c.anchor_trusted)
        << c.name;
  }
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(SubjectSummaryTest, TakesTheLastOfTheBestKind) {
  const auto context = CryptoContext::Create();
  LeafOptions options{.common_names = {"first", "Zweite \xc3\x9c"},
                      .mail_addresses = {"a@example.com"},
                      .organizations = {"company"},
                      .organizational_units = {"a", "b"}};
  const auto check = [&](const std::optional<std::string>& summary) {
    const auto read =
        ReadCertificates(*context, test::MakeSelfSigned(options).certificates);
    EXPECT_EQ(SubjectSummary(*read.front()), summary);
  };
  check("Zweite \xc3\x9c");
  options.common_names = {};
  check("b");
  options.organizational_units = {};
  options.organizations = {};
  check("a@example.com");
}

}  // namespace
}  // namespace zu::platform
