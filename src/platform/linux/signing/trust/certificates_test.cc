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
constexpr ChainPolicy kStamps{.purpose = ChainPurpose::kTimeStamping};

// An extension that nobody knows, and one of the arc of markers.
const test::Extension kUnknown{"1.3.6.1.4.1.99999.1", "critical,DER:0500"};
const test::Extension kMarker{"1.2.840.113635.100.6.1.13", "critical,DER:0500"};

// The tests of files have the usual chains, and what old code may have.
TEST(EvaluateChainTest, GivesTheStatusOfTheChain) {
  const auto context = CryptoContext::Create();
  const TestAuthority root("Root");
  const TestAuthority for_code("Code", &root, "codeSigning");
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
  } cases[] = {
      {"below an issuer for code", for_code, usual, kPlain},
      {"code for time-stamping", root, usual, kStamps, kUsage},
      {"time-stamping below an issuer for code", for_code, stamps, kStamps,
       kUsage},
      {"marked", root, marker, kPlain},
      {"unknown beside a marker", root, unknown, kPlain, kNoTrust},
      {"RSA 768 in old code", root, {.rsa_bits = 768}, kLegacy, kNoTrust},
  };
  for (const auto& c : cases) {
    const auto certificates =
        ReadCertificates(*context, c.issuer.Issue(c.leaf).certificates);
    const ChainResult result =
        EvaluateChain(*context, *anchors, certificates, c.policy);
    EXPECT_EQ(result.status, c.status) << c.name;
    EXPECT_EQ(result.anchor_trusted, c.status == 0) << c.name;
  }
  EXPECT_EQ(ERR_peek_error(), 0u);
}

}  // namespace
}  // namespace zu::platform
