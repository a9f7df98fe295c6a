#include "tests/support/test_authority.h"

#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <fstream>
#include <stdexcept>

#include "platform/linux/signing/openssl_ptr.h"
#include "platform/linux/signing/signer/signer.h"

namespace zu::test {
namespace {

using platform::BioPtr;
using platform::CertificatePtr;
using platform::KeyPtr;

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

void AddName(X509_NAME* name, int nid, const std::string& value) {
  Check(X509_NAME_add_entry_by_NID(
            name, nid, MBSTRING_UTF8,
            reinterpret_cast<const unsigned char*>(value.data()),
            static_cast<int>(value.size()), -1, 0) == 1,
        "name");
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
  AddName(name, NID_organizationName, ZU_DEVELOPER_ID_NAME);
  AddName(name, NID_organizationalUnitName, ZU_DEVELOPER_ID_TEAM);
  for (const std::string& common_name : options.common_names) {
    AddName(name, NID_commonName, common_name);
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
  Check(X509_sign(certificate, issuer_key, EVP_sha256()) > 0, "signature");
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
                             const std::string& extended_key_usage) {
  constexpr int64_t kYear = 365 * 86400;
  const KeyPtr key = MakeKey(0);
  const LeafOptions options{.common_names = {name},
                            .key_usage = "critical,keyCertSign,cRLSign",
                            .extended_key_usage = extended_key_usage,
                            .valid_from_s = -kYear,
                            .valid_until_s = kYear};
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

void TestAuthority::WriteAnchors(const std::filesystem::path& directory) const {
  namespace fs = std::filesystem;
  fs::create_directories(directory);
  // The umask may allow what the library does not.
  fs::permissions(directory, fs::perms(0755));
  const fs::path file = directory / "authority.pem";
  std::ofstream(file) << certificate_;
  fs::permissions(file, fs::perms(0644));
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
