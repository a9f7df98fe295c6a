#include "platform/linux/signing/certificate_facts.h"

#include <openssl/objects.h>
#include <optional>
#include <string>

namespace zu::platform {
namespace {

std::optional<std::string> SubjectAttribute(const X509& certificate, int nid) {
  const X509_NAME* const name = X509_get_subject_name(&certificate);
  const int index = X509_NAME_get_index_by_NID(name, nid, -1);
  // A rule speaks of one value. When there are several, which of them counts
  // is a matter of taste in which two verifiers may differ, so none does.
  if (index < 0 || X509_NAME_get_index_by_NID(name, nid, index) >= 0) {
    return std::nullopt;
  }
  unsigned char* text = nullptr;
  const int length = ASN1_STRING_to_UTF8(
      &text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index)));
  if (length < 0) return std::nullopt;
  std::optional<std::string> value(std::in_place,
                                   reinterpret_cast<const char*>(text),
                                   static_cast<size_t>(length));
  OPENSSL_free(text);
  return value;
}

}  // namespace

CertificateFacts FactsOf(const X509& certificate) {
  CertificateFacts facts;
  const auto set = [&](SubjectField field, int nid) {
    facts.subject[static_cast<size_t>(field)] =
        SubjectAttribute(certificate, nid);
  };
  set(SubjectField::kCommonName, NID_commonName);
  set(SubjectField::kOrganizationalUnit, NID_organizationalUnitName);
  set(SubjectField::kOrganization, NID_organizationName);
  return facts;
}

}  // namespace zu::platform
