#include "platform/linux/signing/trust/certificates.h"

#include <gtest/gtest.h>

#include "platform/linux/signing/status.h"
#include "tests/support/test_authority.h"

namespace zu::platform {
namespace {

using test::LeafOptions;
using test::ReadCertificates;
using test::TestAuthority;

constexpr ChainPolicy kPlain{};
constexpr ChainPolicy kLegacy{.accept_legacy_algorithms = true};
constexpr ChainPolicy kOwnRoot{.accept_own_root = true};
constexpr ChainPolicy kStamps{.purpose = ChainPurpose::kTimeStamping};

// An extension that nobody knows, and one of the arc of markers.
const test::Extension kUnknown{"1.3.6.1.4.1.99999.1", "critical,DER:0500"};
const test::Extension kMarker{"1.2.840.113635.100.6.1.13", "critical,DER:0500"};

TEST(EvaluateChainTest, GivesTheStatusOfTheChain) {
  const auto context = CryptoContext::Create();
  const TestAuthority root(LeafOptions{
      .common_names = {"Root"}, .extended_key_usage = "", .rsa_bits = 2048});
  const TestAuthority below("Below", &root);
  const TestAuthority for_code("Code", &root, "codeSigning");
  const TestAuthority stranger("Stranger");
  const TestAuthority below_stranger("Below Stranger", &stranger);
  const std::string own_root = stranger.certificate();
  const StorePtr anchors(X509_STORE_new());
  X509_STORE_add_cert(
      anchors.get(),
      ReadCertificates(*context, root.certificate()).front().get());
  const LeafOptions stamps{.extended_key_usage = "critical,timeStamping"};
  const LeafOptions usual, marker{.extensions = {kMarker}};
  const LeafOptions unknown{.extensions = {kMarker, kUnknown}};
  constexpr int32_t kUsage = kCertificateUsageInvalid;
  constexpr int32_t kNoTrust = kCertificateNotTrusted;

  const struct {
    const char* name;
    const TestAuthority& issuer;
    LeafOptions leaf;
    ChainPolicy policy;
    int32_t status = 0;
    size_t length = 0;
    bool anchor_trusted = true;
    std::string more = "";  // Certificates that come along.
  } cases[] = {
      {"plain", below, usual, kPlain, 0, 3},
      {"time-stamping for code", root, stamps, kPlain, kUsage},
      {"code for time-stamping", root, usual, kStamps, kUsage},
      {"time-stamping below an issuer for code", for_code, stamps, kStamps,
       kUsage},
      {"own root", below_stranger, usual, kOwnRoot, 0, 3, false, own_root},
      {"an anchor, too", root, usual, kOwnRoot, 0, 2, true, root.certificate()},
      {"marked", root, marker, kPlain, 0, 2},
      {"unknown beside a marker", root, unknown, kPlain, kNoTrust},
      // The verifier's tests have what is tolerated.
      {"RSA 768 in old code", root, {.rsa_bits = 768}, kLegacy, kNoTrust},
      {"MD5 in old code", root, {.digest = "MD5"}, kLegacy, kNoTrust},
  };
  for (const auto& c : cases) {
    const auto certificates = ReadCertificates(
        *context, c.issuer.Issue(c.leaf).certificates + c.more);
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
  const auto summary = [&](const LeafOptions& options) {
    const std::string pem = test::MakeSelfSigned(options).certificates;
    return SubjectSummary(*ReadCertificates(*context, pem).front());
  };
  EXPECT_EQ(summary({.common_names = {"first", "Zweite \xc3\x9c"}}),
            "Zweite \xc3\x9c");
  EXPECT_EQ(summary({.common_names = {}, .organizational_units = {"a", "b"}}),
            "b");
}

}  // namespace
}  // namespace zu::platform
