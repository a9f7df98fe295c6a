#include "tests/support/test_authority.h"

#include <openssl/ocsp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string_view>

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
std::string ToPem(Write write) {
  const BioPtr bio(BIO_new(BIO_s_mem()));
  Check(write(bio.get()) == 1, "PEM");
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  return std::string(text, static_cast<size_t>(size));
}

std::string ToPem(X509* certificate) {
  return ToPem([&](BIO* bio) { return PEM_write_bio_X509(bio, certificate); });
}

std::string ToPem(EVP_PKEY* key) {
  return ToPem([&](BIO* bio) {
    return PEM_write_bio_PKCS8PrivateKey(bio, key, nullptr, nullptr, 0, nullptr,
                                         nullptr);
  });
}

// Keys and issuers go through PEM, so that nothing here outlives a call.
KeyPtr ReadKey(const std::string& text) {
  const BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  KeyPtr key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
  Check(key != nullptr, "private key");
  return key;
}

CertificatePtr ReadCertificate(const std::string& text) {
  const BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  CertificatePtr read(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  Check(read != nullptr, "certificate");
  return read;
}

KeyPtr MakeKey(unsigned rsa_bits) {
  KeyPtr key(rsa_bits == 0 ? EVP_EC_gen("P-256") : EVP_RSA_gen(rsa_bits));
  Check(key != nullptr, "new key");
  return key;
}

using TimePtr = OpenSslPtr<ASN1_TIME, &ASN1_TIME_free>;
TimePtr TimeFromNow(int64_t seconds) {
  // OCSP knows this one of the two forms only.
  return TimePtr(ASN1_TIME_to_generalizedtime(
      TimePtr(X509_gmtime_adj(nullptr, seconds)).get(), nullptr));
}

void AddName(X509_NAME* name, int nid, const std::string& value) {
  Check(X509_NAME_add_entry_by_NID(
            name, nid, MBSTRING_UTF8,
            reinterpret_cast<const unsigned char*>(value.data()),
            static_cast<int>(value.size()), -1, 0) == 1,
        "name");
}

using ExtensionPtr = OpenSslPtr<X509_EXTENSION, &X509_EXTENSION_free>;
ExtensionPtr MakeExtension(const Extension& extension) {
  const OpenSslPtr<ASN1_OBJECT, &ASN1_OBJECT_free> oid(
      OBJ_txt2obj(extension.oid.c_str(), 1));
  const OpenSslPtr<ASN1_OCTET_STRING, &ASN1_OCTET_STRING_free> value(
      ASN1_OCTET_STRING_new());
  ASN1_OCTET_STRING_set(
      value.get(), reinterpret_cast<const unsigned char*>(extension.der.data()),
      static_cast<int>(extension.der.size()));
  ExtensionPtr made(X509_EXTENSION_create_by_OBJ(
      nullptr, oid.get(), extension.critical ? 1 : 0, value.get()));
  Check(made != nullptr, "extension");
  return made;
}

void AddExtension(X509* certificate, X509* issuer, int nid,
                  const std::string& value) {
  if (value.empty()) return;
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* const extension =
      X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
  Check(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1,
        "extension");
  X509_EXTENSION_free(extension);
}

// Without an issuer the certificate vouches for itself.
CertificatePtr MakeCertificate(EVP_PKEY* key, const LeafOptions& options,
                               const char* basic_constraints, X509* issuer,
                               EVP_PKEY* issuer_key) {
  CertificatePtr made(X509_new());
  X509* const certificate = made.get();
  Check(X509_set_version(certificate, X509_VERSION_3) == 1, "version");
  uint64_t serial = 0;
  RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof(serial));
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial >> 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), options.valid_from_s);
  X509_gmtime_adj(X509_getm_notAfter(certificate), options.valid_until_s);
  X509_NAME* const name = X509_get_subject_name(certificate);
  const std::pair<int, const std::vector<std::string>&> parts[] = {
      {NID_pkcs9_emailAddress, options.mail_addresses},
      {NID_organizationName, options.organizations},
      {NID_organizationalUnitName, options.organizational_units},
      {NID_commonName, options.common_names}};
  for (const auto& [nid, values] : parts) {
    for (const std::string& value : values) AddName(name, nid, value);
  }
  X509_set_pubkey(certificate, key);
  if (issuer == nullptr) {
    issuer = certificate;
    issuer_key = key;
  }
  X509_set_issuer_name(certificate, X509_get_subject_name(issuer));
  AddExtension(certificate, issuer, NID_basic_constraints, basic_constraints);
  AddExtension(certificate, issuer, NID_key_usage, options.key_usage);
  AddExtension(certificate, issuer, NID_ext_key_usage,
               options.extended_key_usage);
  AddExtension(certificate, issuer, NID_subject_key_identifier, "hash");
  if (!options.ocsp_url.empty()) {
    AddExtension(certificate, issuer, NID_info_access,
                 "OCSP;URI:" + options.ocsp_url);
  }
  if (!options.crl_url.empty()) {
    AddExtension(certificate, issuer, NID_crl_distribution_points,
                 "URI:" + options.crl_url);
  }
  for (const Extension& extension : options.extensions) {
    Check(X509_add_ext(certificate, MakeExtension(extension).get(), -1) == 1,
          "extension");
  }
  const EVP_MD* const digest = EVP_get_digestbyname(options.digest.c_str());
  Check(X509_sign(certificate, issuer_key, digest) > 0, "signature");
  return made;
}

// `issuer` may be null, as above.
Credential MakeLeaf(const LeafOptions& options, const std::string* issuer,
                    const std::string& issuer_key, const std::string& chain) {
  const KeyPtr key = MakeKey(options.rsa_bits);
  const CertificatePtr certificate = MakeCertificate(
      key.get(), options, "critical,CA:FALSE",
      issuer == nullptr ? nullptr : ReadCertificate(*issuer).get(),
      issuer == nullptr ? nullptr : ReadKey(issuer_key).get());
  return {ToPem(key.get()), ToPem(certificate.get()) + chain};
}

}  // namespace

TestAuthority::TestAuthority(const std::string& name,
                             const TestAuthority* parent,
                             const std::string& extended_key_usage)
    : TestAuthority(LeafOptions{.common_names = {name},
                                .extended_key_usage = extended_key_usage,
                                .valid_from_s = -kYear_s,
                                .valid_until_s = kYear_s},
                    parent) {}

TestAuthority::TestAuthority(LeafOptions options, const TestAuthority* parent) {
  options.key_usage = "critical,keyCertSign,cRLSign";
  const KeyPtr key = MakeKey(options.rsa_bits);
  key_ = ToPem(key.get());
  certificate_ =
      ToPem(MakeCertificate(
                key.get(), options, "critical,CA:TRUE",
                parent == nullptr ? nullptr
                                  : ReadCertificate(parent->certificate_).get(),
                parent == nullptr ? nullptr : ReadKey(parent->key_).get())
                .get());
  if (parent != nullptr) chain_ = certificate_ + parent->chain_;
}

Credential TestAuthority::Issue(const LeafOptions& options) const {
  return MakeLeaf(options, &certificate_, key_, chain_);
}

Credential MakeSelfSigned(const LeafOptions& options) {
  return MakeLeaf(options, nullptr, "", "");
}

Credential IssueBelow(const Credential& leaf, const LeafOptions& options) {
  return MakeLeaf(options, &leaf.certificates, leaf.key, leaf.certificates);
}

void TestAuthority::Revoke(const Credential& credential) {
  revoked_.push_back(credential.certificates);
}
void TestAuthority::Revoke(const TestAuthority& subordinate) {
  revoked_.push_back(subordinate.certificate_);
}

std::string TestAuthority::MakeCrl(const RevocationOptions& options) const {
  const CrlPtr list(X509_CRL_new());
  X509_CRL_set_version(list.get(), X509_CRL_VERSION_2);
  X509_CRL_set_issuer_name(
      list.get(), X509_get_subject_name(ReadCertificate(certificate_).get()));
  const TimePtr from = TimeFromNow(options.valid_from_s);
  X509_CRL_set1_lastUpdate(list.get(), from.get());
  X509_CRL_set1_nextUpdate(list.get(),
                           TimeFromNow(options.valid_until_s).get());
  for (const std::string& certificate : revoked_) {
    X509_REVOKED* const entry = X509_REVOKED_new();
    X509_REVOKED_set_serialNumber(
        entry, X509_get_serialNumber(ReadCertificate(certificate).get()));
    X509_REVOKED_set_revocationDate(entry, from.get());
    Check(X509_CRL_add0_revoked(list.get(), entry) == 1, "list entry");
  }
  for (const Extension& extension : options.crl_extensions) {
    Check(X509_CRL_add_ext(list.get(), MakeExtension(extension).get(), -1) == 1,
          "list extension");
  }
  Check(X509_CRL_sign(list.get(), ReadKey(key_).get(), EVP_sha256()) > 0,
        "list");
  return ToPem(
      [&](BIO* bio) { return PEM_write_bio_X509_CRL(bio, list.get()); });
}

std::string TestAuthority::AnswerOcsp(const std::string& request,
                                      const RevocationOptions& options) const {
  const auto* input = reinterpret_cast<const unsigned char*>(request.data());
  const OpenSslPtr<OCSP_REQUEST, &OCSP_REQUEST_free> asked(
      d2i_OCSP_REQUEST(nullptr, &input, static_cast<long>(request.size())));
  Check(asked != nullptr && OCSP_request_onereq_count(asked.get()) == 1,
        "OCSP request");
  OCSP_CERTID* const id =
      OCSP_onereq_get0_id(OCSP_request_onereq_get0(asked.get(), 0));
  const CertificatePtr issuer = ReadCertificate(certificate_);
  bool is_revoked = false;
  for (const std::string& certificate : revoked_) {
    const OpenSslPtr<OCSP_CERTID, &OCSP_CERTID_free> revoked(OCSP_cert_to_id(
        EVP_sha1(), ReadCertificate(certificate).get(), issuer.get()));
    is_revoked = is_revoked || OCSP_id_cmp(id, revoked.get()) == 0;
  }
  const OpenSslPtr<OCSP_BASICRESP, &OCSP_BASICRESP_free> answer(
      OCSP_BASICRESP_new());
  const TimePtr from = TimeFromNow(options.valid_from_s);
  OCSP_basic_add1_status(
      answer.get(), id,
      is_revoked ? V_OCSP_CERTSTATUS_REVOKED : V_OCSP_CERTSTATUS_GOOD,
      is_revoked ? OCSP_REVOKED_STATUS_KEYCOMPROMISE : 0, from.get(),
      from.get(), TimeFromNow(options.valid_until_s).get());
  const CertificatePtr signer = ReadCertificate(
      options.responder ? options.responder->certificates : certificate_);
  const KeyPtr key = ReadKey(options.responder ? options.responder->key : key_);
  Check(OCSP_basic_sign(answer.get(), signer.get(), key.get(), EVP_sha256(),
                        nullptr, 0) == 1,
        "OCSP answer");
  const OpenSslPtr<OCSP_RESPONSE, &OCSP_RESPONSE_free> response(
      OCSP_response_create(OCSP_RESPONSE_STATUS_SUCCESSFUL, answer.get()));
  unsigned char* der = nullptr;
  const int size = i2d_OCSP_RESPONSE(response.get(), &der);
  Check(size > 0, "OCSP response");
  std::string text(reinterpret_cast<char*>(der), static_cast<size_t>(size));
  OPENSSL_free(der);
  return text;
}

std::string TestAuthority::Answer(const HttpServerRequest& request,
                                  const RevocationOptions& options) const {
  return request.method == "POST" ? AnswerOcsp(request.body, options)
                                  : ToDer(MakeCrl(options));
}

void TestAuthority::WriteAnchors(const std::filesystem::path& directory) const {
  namespace fs = std::filesystem;
  fs::create_directories(directory);
  // The umask may allow what the library does not.
  fs::permissions(directory, fs::perms(0755));
  const fs::path file = directory / "authority.pem";
  std::ofstream(file) << certificate_;
  fs::permissions(file, fs::perms(0644));
}

std::string ToDer(const std::string& pem) {
  const BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
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
  constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE";
  for (size_t at = pem.find(kBegin); at != pem.npos;
       at = pem.find(kBegin, at + 1)) {
    const std::string der = ToDer(pem.substr(at));
    auto bytes = std::as_bytes(std::span(der));
    certificates.push_back(context.TakeCertificate(bytes));
    Check(certificates.back() != nullptr, "certificate");
  }
  return certificates;
}

void SignExecutable(const std::filesystem::path& file,
                    const Credential& credential,
                    const std::string& identifier) {
  std::string error;
  const auto identity = platform::SigningIdentity::FromPem(
      credential.key, credential.certificates, error);
  if (!identity ||
      platform::SignFile(file.string(), *identity,
                         {.identifier = identifier, .replace = true},
                         error) != platform::SignResult::kSigned) {
    throw std::runtime_error(error);
  }
}

}  // namespace zu::test
