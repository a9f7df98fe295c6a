#include "platform/linux/signing/certificate_facts.h"

#include <openssl/objects.h>
#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

namespace zu::platform {
namespace {

using Fields = decltype(CertificateFacts::fields);

// In dotted numbers; empty for those longer than any that a rule asks for.
std::string DottedName(const ASN1_OBJECT* object) {
  char text[256];
  const int length = OBJ_obj2txt(text, sizeof(text), object, 1);
  if (length <= 0 || static_cast<size_t>(length) >= sizeof(text)) return {};
  return {text, static_cast<size_t>(length)};
}

// A rule speaks of one value. When there are several, which of them counts is
// a matter of taste in which two verifiers may differ, so none does.
void Add(Fields& fields, std::string name, std::optional<std::string> value) {
  const auto [field, is_first] =
      fields.try_emplace(std::move(name), std::move(value));
  if (!is_first) field->second.reset();
}

// An extension's value without its header when it is one string of characters
// that need no conversion.
std::string ExtensionValue(const ASN1_OCTET_STRING* value) {
  const unsigned char* const start = ASN1_STRING_get0_data(value);
  const long size = ASN1_STRING_length(value);
  const unsigned char* content = start;
  long length = 0;
  int tag = 0;
  int tag_class = 0;
  // Other results: an error, or bits that say constructed or indefinite.
  const bool is_primitive =
      ASN1_get_object(&content, &length, &tag, &tag_class, size) == 0;
  const bool is_text = is_primitive && tag_class == V_ASN1_UNIVERSAL &&
                       content + length == start + size &&
                       (tag == V_ASN1_UTF8STRING || tag == V_ASN1_IA5STRING ||
                        tag == V_ASN1_PRINTABLESTRING);
  return {reinterpret_cast<const char*>(is_text ? content : start),
          static_cast<size_t>(is_text ? length : size)};
}

std::vector<std::byte> Digest(const X509& certificate, const EVP_MD& digest) {
  std::vector<std::byte> value(static_cast<size_t>(EVP_MD_get_size(&digest)));
  if (X509_digest(&certificate, &digest,
                  reinterpret_cast<unsigned char*>(value.data()),
                  nullptr) != 1) {
    value.clear();
  }
  return value;
}

}  // namespace

CertificateFacts FactsOf(const X509& certificate) {
  CertificateFacts facts;
  const X509_NAME* const subject = X509_get_subject_name(&certificate);
  for (int i = 0; i < X509_NAME_entry_count(subject); ++i) {
    const X509_NAME_ENTRY* const entry = X509_NAME_get_entry(subject, i);
    const std::string oid = DottedName(X509_NAME_ENTRY_get_object(entry));
    const auto attribute = std::find_if(
        std::begin(kSubjectAttributes), std::end(kSubjectAttributes),
        [&](const SubjectAttribute& row) { return row.oid == oid; });
    if (attribute == std::end(kSubjectAttributes)) continue;
    Add(facts.fields, std::string(attribute->field),
        Utf8Of(X509_NAME_ENTRY_get_data(entry)));
  }
  for (int i = 0; i < X509_get_ext_count(&certificate); ++i) {
    X509_EXTENSION* const extension = X509_get_ext(&certificate, i);
    const std::string oid = DottedName(X509_EXTENSION_get_object(extension));
    if (oid.empty()) continue;
    Add(facts.fields, "field." + oid,
        ExtensionValue(X509_EXTENSION_get_data(extension)));
  }
  // Only the names of these two count: the certificate's own context makes the
  // digests.
  facts.sha1 = Digest(certificate, *EVP_sha1());
  facts.sha256 = Digest(certificate, *EVP_sha256());
  return facts;
}

}  // namespace zu::platform
