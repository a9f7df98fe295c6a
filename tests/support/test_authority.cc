#include "tests/support/test_authority.h"

#include <openssl/ocsp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <fstream>
#include <span>
#include <stdexcept>

#include "platform/linux/signing/openssl_ptr.h"
#include "platform/linux/signing/signer/signer.h"

namespace zu::test {
namespace {

using platform::BioPtr;
using platform::CertificatePtr;
using platform::CrlPtr;
using platform::KeyPtr;
using platform::OpenSslPtr;

constexpr int64_t kYear_s = 365 * 86400;

void Check(bool good, const char* what) {
  if (!good) throw std::runtime_error(what);
}

template <typename Write>
std::string ToText(Write write) {
  const BioPtr bio(BIO_new(BIO_s_mem()));
  Check(write(bio.get()) == 1, "encoding");
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  return std::string(text, static_cast<size_t>(size));
}

// Keys and issuers go through PEM, so that nothing here outlives a call.
template <typename Ptr, typename Read>
Ptr FromPem(Read read, const std::string& pem) {
  const BioPtr bio(BIO_new_mem_buf(pem.c_str(), -1));
  Ptr object(read(bio.get(), nullptr, nullptr, nullptr));
  Check(object != nullptr, "PEM");
  return object;
}
KeyPtr ReadKey(const std::string& pem) {
  return FromPem<KeyPtr>(&PEM_read_bio_PrivateKey, pem);
}
CertificatePtr ReadCertificate(const std::string& pem) {
  return FromPem<CertificatePtr>(&PEM_read_bio_X509, pem);
}

using TimePtr = OpenSslPtr<ASN1_TIME, &ASN1_TIME_free>;
TimePtr TimeFromNow(int64_t seconds) {
  // OCSP knows this one of the two forms only.
  return TimePtr(ASN1_TIME_to_generalizedtime(
      TimePtr(X509_gmtime_adj(nullptr, seconds)).get(), nullptr));
}

// Without an issuer the certificate vouches for itself.
Credential MakeCertificate(const LeafOptions& options, const char* constraints,
                           const Credential* issuer) {
  const KeyPtr key(options.rsa_bits == 0 ? EVP_EC_gen("P-256")
                                         : EVP_RSA_gen(options.rsa_bits));
  const CertificatePtr made(X509_new());
  X509* const certificate = made.get();
  X509_set_version(certificate, X509_VERSION_3);
  uint64_t serial = 0;
  RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof(serial));
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial >> 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), options.valid_from_s);
  X509_gmtime_adj(X509_getm_notAfter(certificate), options.valid_until_s);
  const auto add_name = [&](int nid, const std::string& value) {
    X509_NAME_add_entry_by_NID(
        X509_get_subject_name(certificate), nid, MBSTRING_UTF8,
        reinterpret_cast<const unsigned char*>(value.data()),
        static_cast<int>(value.size()), -1, 0);
  };
  add_name(NID_organizationalUnitName, ZU_DEVELOPER_ID_TEAM);
  for (const std::string& name : options.common_names) {
    add_name(NID_commonName, name);
  }
  X509_set_pubkey(certificate, key.get());
  const CertificatePtr issuing =
      issuer ? ReadCertificate(issuer->certificates) : nullptr;
  X509* const above = issuing ? issuing.get() : certificate;
  X509_set_issuer_name(certificate, X509_get_subject_name(above));
  std::vector<Extension> extensions = {
      {"basicConstraints", constraints},
      {"keyUsage", options.key_usage},
      {"extendedKeyUsage", options.extended_key_usage},
      {"subjectKeyIdentifier", "hash"}};
  if (!options.ocsp_url.empty()) {
    extensions.push_back({"authorityInfoAccess",  //
                          "OCSP;URI:" + options.ocsp_url});
  }
  if (!options.crl_url.empty()) {
    extensions.push_back({"crlDistributionPoints", "URI:" + options.crl_url});
  }
  extensions.insert(extensions.end(), options.extensions.begin(),
                    options.extensions.end());
  X509V3_CTX context;
  X509V3_set_ctx(&context, above, certificate, nullptr, nullptr, 0);
  for (const Extension& extension : extensions) {
    if (extension.value.empty()) continue;
    const OpenSslPtr<X509_EXTENSION, &X509_EXTENSION_free> made_extension(
        X509V3_EXT_nconf(nullptr, &context, extension.name.c_str(),
                         extension.value.c_str()));
    Check(made_extension != nullptr, extension.name.c_str());
    X509_add_ext(certificate, made_extension.get(), -1);
  }
  const KeyPtr issuing_key = issuer ? ReadKey(issuer->key) : nullptr;
  Check(X509_sign(certificate, issuing_key ? issuing_key.get() : key.get(),
                  EVP_sha256()) > 0,
        "certificate");
  return {
      ToText([&](BIO* bio) {
        return PEM_write_bio_PKCS8PrivateKey(bio, key.get(), nullptr, nullptr,
                                             0, nullptr, nullptr);
      }),
      ToText([&](BIO* bio) { return PEM_write_bio_X509(bio, made.get()); })};
}

}  // namespace

TestAuthority::TestAuthority(const std::string& name,
                             const TestAuthority* parent,
                             const std::string& extended_key_usage) {
  const LeafOptions options{.common_names = {name},
                            .key_usage = "critical,keyCertSign,cRLSign",
                            .extended_key_usage = extended_key_usage,
                            .valid_from_s = -kYear_s,
                            .valid_until_s = kYear_s};
  own_ = MakeCertificate(options, "critical,CA:TRUE",
                         parent ? &parent->own_ : nullptr);
  if (parent != nullptr) chain_ = own_.certificates + parent->chain_;
}

Credential TestAuthority::Issue(const LeafOptions& options) const {
  Credential leaf = MakeCertificate(options, "critical,CA:FALSE", &own_);
  leaf.certificates += chain_;
  return leaf;
}

Credential MakeSelfSigned() {
  return MakeCertificate({}, "critical,CA:FALSE", nullptr);
}

void TestAuthority::Revoke(const std::string& certificate) {
  revoked_.push_back(certificate);
}

std::string TestAuthority::MakeCrl(const RevocationOptions& options) const {
  const CrlPtr list(X509_CRL_new());
  X509_CRL_set_version(list.get(), X509_CRL_VERSION_2);
  X509_CRL_set_issuer_name(
      list.get(), X509_get_subject_name(ReadCertificate(certificate()).get()));
  const TimePtr from = TimeFromNow(options.valid_from_s);
  X509_CRL_set1_lastUpdate(list.get(), from.get());
  X509_CRL_set1_nextUpdate(list.get(),
                           TimeFromNow(options.valid_until_s).get());
  for (const std::string& certificate : revoked_) {
    X509_REVOKED* const entry = X509_REVOKED_new();
    X509_REVOKED_set_serialNumber(
        entry, X509_get_serialNumber(ReadCertificate(certificate).get()));
    X509_REVOKED_set_revocationDate(entry, from.get());
    X509_CRL_add0_revoked(list.get(), entry);
  }
  Check(X509_CRL_sign(list.get(), ReadKey(own_.key).get(), EVP_sha256()) > 0,
        "list");
  return ToText(
      [&](BIO* bio) { return PEM_write_bio_X509_CRL(bio, list.get()); });
}

std::string TestAuthority::Answer(const HttpServerRequest& request,
                                  const RevocationOptions& options) const {
  if (request.method != "POST") return ToDer(MakeCrl(options));
  const auto* input =
      reinterpret_cast<const unsigned char*>(request.body.data());
  const OpenSslPtr<OCSP_REQUEST, &OCSP_REQUEST_free> asked(d2i_OCSP_REQUEST(
      nullptr, &input, static_cast<long>(request.body.size())));
  Check(asked && OCSP_request_onereq_count(asked.get()) == 1, "OCSP request");
  OCSP_CERTID* const id =
      OCSP_onereq_get0_id(OCSP_request_onereq_get0(asked.get(), 0));
  ASN1_INTEGER* serial = nullptr;
  OCSP_id_get0_info(nullptr, nullptr, nullptr, &serial, id);
  bool is_revoked = false;
  for (const std::string& certificate : revoked_) {
    const CertificatePtr revoked = ReadCertificate(certificate);
    is_revoked |=
        ASN1_INTEGER_cmp(serial, X509_get_serialNumber(revoked.get())) == 0;
  }
  const OpenSslPtr<OCSP_BASICRESP, &OCSP_BASICRESP_free> answer(
      OCSP_BASICRESP_new());
  const TimePtr from = TimeFromNow(options.valid_from_s);
  OCSP_basic_add1_status(
      answer.get(), id,
      is_revoked ? V_OCSP_CERTSTATUS_REVOKED : V_OCSP_CERTSTATUS_GOOD,
      is_revoked ? OCSP_REVOKED_STATUS_KEYCOMPROMISE : 0, from.get(),
      from.get(), TimeFromNow(options.valid_until_s).get());
  const Credential signer = options.responder.value_or(own_);
  Check(
      OCSP_basic_sign(answer.get(), ReadCertificate(signer.certificates).get(),
                      ReadKey(signer.key).get(), EVP_sha256(), nullptr, 0) == 1,
      "OCSP answer");
  const OpenSslPtr<OCSP_RESPONSE, &OCSP_RESPONSE_free> response(
      OCSP_response_create(OCSP_RESPONSE_STATUS_SUCCESSFUL, answer.get()));
  return ToText(
      [&](BIO* bio) { return i2d_OCSP_RESPONSE_bio(bio, response.get()); });
}

void TestAuthority::WriteAnchors(const std::filesystem::path& directory) const {
  namespace fs = std::filesystem;
  fs::create_directories(directory);
  // The umask may allow what the library does not.
  fs::permissions(directory, fs::perms(0755));
  const fs::path file = directory / "authority.pem";
  std::ofstream(file) << certificate();
  fs::permissions(file, fs::perms(0644));
}

std::string ToDer(const std::string& pem) {
  const BioPtr bio(BIO_new_mem_buf(pem.c_str(), -1));
  char* name = nullptr;
  char* header = nullptr;
  unsigned char* data = nullptr;
  long size = 0;
  Check(PEM_read_bio(bio.get(), &name, &header, &data, &size) == 1, "PEM");
  std::string der(reinterpret_cast<char*>(data), static_cast<size_t>(size));
  OPENSSL_free(name);
  OPENSSL_free(header);
  OPENSSL_free(data);
  return der;
}

std::vector<CertificatePtr> ReadCertificates(
    const platform::CryptoContext& context, const std::string& pem) {
  std::vector<CertificatePtr> certificates;
  for (size_t at = 0; at != pem.npos; at = pem.find("-----BEGIN", at + 1)) {
    const std::string der = ToDer(pem.substr(at));
    auto bytes = std::as_bytes(std::span(der));
    certificates.push_back(context.TakeCertificate(bytes));
  }
  return certificates;
}

platform::SigningIdentity ToIdentity(const Credential& credential) {
  std::string error;
  auto identity = platform::SigningIdentity::FromPem(
      credential.key, credential.certificates, error);
  Check(identity.has_value(), error.c_str());
  return *std::move(identity);
}

void SignExecutable(const std::filesystem::path& file,
                    const Credential& credential) {
  std::string error;
  Check(platform::SignFile(file.string(), ToIdentity(credential),
                           {.identifier = "", .replace = true},
                           error) == platform::SignResult::kSigned,
        error.c_str());
}

}  // namespace zu::test
