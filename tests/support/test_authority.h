// Throw-away certificate authorities, and files that they signed.
#ifndef ZU_TESTS_SUPPORT_TEST_AUTHORITY_H_
#define ZU_TESTS_SUPPORT_TEST_AUTHORITY_H_

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "build_values.h"
#include "platform/linux/signing/signer/signing_identity.h"
#include "tests/support/http_server.h"

namespace zu::test {

inline constexpr char kDeveloperIdName[] =
    "Developer ID Application: " ZU_DEVELOPER_ID_NAME " (" ZU_DEVELOPER_ID_TEAM
    ")";

// A key, its certificate and, behind that, those above it but for the root:
// PEM text, as files hold it.
struct Credential {
  std::string key;
  std::string certificates;
};

// As configuration files spell them, also "1.2.3" and "DER:0500".
struct Extension {
  std::string name;
  std::string value;
};

// What a leaf says. The defaults are the vendor's.
struct LeafOptions {
  // Of the subject, in this order, behind the vendor's team; may hold NULs.
  std::vector<std::string> common_names = {kDeveloperIdName};
  // As configuration files spell them; empty leaves the extension out.
  std::string key_usage = "critical,digitalSignature";
  std::string extended_key_usage = "codeSigning";
  // From now, in seconds.
  int64_t valid_from_s = -3600;
  int64_t valid_until_s = 3600;
  unsigned rsa_bits = 0;  // 0: an elliptic-curve key, which is quickly made.
  // Where to ask whether it is revoked; empty leaves them out.
  std::string ocsp_url = "";
  std::string crl_url = "";
  std::vector<Extension> extensions = {};
};

// What an authority says about revocation.
struct RevocationOptions {
  // Of the statement, from now, in seconds.
  int64_t valid_from_s = -60;
  int64_t valid_until_s = 3600;
  // Signs OCSP answers in the authority's place.
  std::optional<Credential> responder = std::nullopt;
};

// Every failure throws std::runtime_error.
class TestAuthority {
 public:
  // A root, or with `parent` an authority below it. `extended_key_usage`
  // as above.
  explicit TestAuthority(const std::string& name = "Test Authority",
                         const TestAuthority* parent = nullptr,
                         const std::string& extended_key_usage = "");

  Credential Issue(const LeafOptions& options = {}) const;

  // From now on lists and answers name it. Not while a server answers.
  void Revoke(const std::string& certificate);

  // The list of what it has revoked: PEM.
  std::string MakeCrl(const RevocationOptions& options = {}) const;
  // For HttpServer: OCSP by POST, the list (in DER) by GET.
  std::string Answer(const HttpServerRequest& request,
                     const RevocationOptions& options = {}) const;

  // The authority's own certificate.
  const std::string& certificate() const { return own_.certificates; }

  // Makes the directory, if need be, with the certificate as its only content.
  void WriteAnchors(const std::filesystem::path& directory) const;

 private:
  Credential own_;
  std::vector<std::string> revoked_;  // Certificates.
  // What comes behind a leaf's certificate: none for a root.
  std::string chain_;
};

// What somebody who is no authority can make.
Credential MakeSelfSigned();

platform::SigningIdentity ToIdentity(const Credential& credential);

// The first block of PEM text, decoded.
std::string ToDer(const std::string& pem);
// All certificates of PEM text.
std::vector<platform::CertificatePtr> ReadCertificates(
    const platform::CryptoContext& context, const std::string& pem);

// Signs an ELF file in place, as zusign does; what was signed is signed anew.
void SignExecutable(const std::filesystem::path& file,
                    const Credential& credential);

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_TEST_AUTHORITY_H_
