#include "tests/support/timestamp_authority.h"

#include <openssl/cms.h>
#include <openssl/ts.h>
#include <stdexcept>

#include "platform/linux/signing/cms/ber.h"
#include "platform/linux/signing/openssl_ptr.h"
#include "platform/linux/signing/signer/signing_identity.h"

namespace zu::test {
namespace {

using platform::BioPtr;
using platform::EncodeDer;
using platform::kBerInteger;
using platform::kBerSequence;
using platform::OpenSslPtr;
using Bytes = std::vector<std::byte>;
using AlgorithmPtr = OpenSslPtr<X509_ALGOR, &X509_ALGOR_free>;
using ImprintPtr = OpenSslPtr<TS_MSG_IMPRINT, &TS_MSG_IMPRINT_free>;
using InfoPtr = OpenSslPtr<TS_TST_INFO, &TS_TST_INFO_free>;
using IntegerPtr = OpenSslPtr<ASN1_INTEGER, &ASN1_INTEGER_free>;
using RequestPtr = OpenSslPtr<TS_REQ, &TS_REQ_free>;
using TimePtr = OpenSslPtr<ASN1_GENERALIZEDTIME, &ASN1_GENERALIZEDTIME_free>;

void Check(bool good, const char* what) {
  if (!good) throw std::runtime_error(what);
}

template <typename Write, typename T>
Bytes ToDer(Write write, const T* object) {
  unsigned char* der = nullptr;
  const int size = write(object, &der);
  Check(size > 0, "encoding");
  const auto bytes = std::as_bytes(std::span(der, static_cast<size_t>(size)));
  Bytes result(bytes.begin(), bytes.end());
  OPENSSL_free(der);
  return result;
}

Bytes MakeInfo(TS_MSG_IMPRINT* imprint, int64_t time,
               const ASN1_INTEGER* nonce) {
  const InfoPtr info(TS_TST_INFO_new());
  const IntegerPtr serial(ASN1_INTEGER_new());
  const TimePtr when(ASN1_GENERALIZEDTIME_set(nullptr, time));
  Check(
      TS_TST_INFO_set_version(info.get(), 1) == 1 &&
          TS_TST_INFO_set_policy_id(info.get(), OBJ_nid2obj(NID_rsadsi)) == 1 &&
          TS_TST_INFO_set_msg_imprint(info.get(), imprint) == 1 &&
          ASN1_INTEGER_set(serial.get(), 7) == 1 &&
          TS_TST_INFO_set_serial(info.get(), serial.get()) == 1 &&
          TS_TST_INFO_set_time(info.get(), when.get()) == 1 &&
          (nonce == nullptr || TS_TST_INFO_set_nonce(info.get(), nonce) == 1),
      "timestamp");
  return ToDer(&i2d_TS_TST_INFO, info.get());
}

}  // namespace

Bytes MakeMessage(const Credential& signer, int content_type,
                  std::span<const std::byte> content) {
  // CMS_CADES adds the reference to the signer's certificate, which tokens
  // must have.
  constexpr unsigned kFlags =
      CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP | CMS_CADES;
  std::string error;
  const auto identity = platform::SigningIdentity::FromPem(
      signer.key, signer.certificates, error);
  Check(identity.has_value(), error.c_str());
  const platform::CmsPtr message(
      CMS_sign_ex(nullptr, nullptr, identity->chain.get(), nullptr, kFlags,
                  identity->context->get(), nullptr));
  const BioPtr data(
      BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  Check(message && data &&
            CMS_set1_eContentType(message.get(), OBJ_nid2obj(content_type)) ==
                1 &&
            CMS_add1_signer(message.get(), identity->leaf.get(),
                            identity->key.get(), EVP_sha256(),
                            kFlags) != nullptr &&
            CMS_final(message.get(), data.get(), nullptr, kFlags) == 1,
        "message");
  return ToDer(&i2d_CMS_ContentInfo, message.get());
}

Bytes MakeTimestampToken(const Credential& tsa,
                         std::span<const std::byte> value, int64_t time) {
  Bytes digest(EVP_MAX_MD_SIZE);
  auto* const octets = reinterpret_cast<unsigned char*>(digest.data());
  unsigned size = 0;
  const AlgorithmPtr algorithm(X509_ALGOR_new());
  const ImprintPtr imprint(TS_MSG_IMPRINT_new());
  Check(EVP_Digest(value.data(), value.size(), octets, &size, EVP_sha256(),
                   nullptr) == 1 &&
            X509_ALGOR_set0(algorithm.get(), OBJ_nid2obj(NID_sha256),
                            V_ASN1_NULL, nullptr) == 1 &&
            TS_MSG_IMPRINT_set_algo(imprint.get(), algorithm.get()) == 1 &&
            TS_MSG_IMPRINT_set_msg(imprint.get(), octets,
                                   static_cast<int>(size)) == 1,
        "imprint");
  return MakeMessage(tsa, NID_id_smime_ct_TSTInfo,
                     MakeInfo(imprint.get(), time, nullptr));
}

Bytes AnswerTimestampRequest(const Credential& tsa,
                             std::span<const std::byte> request, int64_t time) {
  const auto* position = reinterpret_cast<const unsigned char*>(request.data());
  const RequestPtr read(
      d2i_TS_REQ(nullptr, &position, static_cast<long>(request.size())));
  Check(read != nullptr && TS_REQ_get_version(read.get()) == 1 &&
            TS_REQ_get_cert_req(read.get()) != 0,
        "request");
  const std::byte granted[] = {std::byte{0}};
  return EncodeDer(
      kBerSequence,
      {EncodeDer(kBerSequence, {EncodeDer(kBerInteger, {granted})}),
       MakeMessage(tsa, NID_id_smime_ct_TSTInfo,
                   MakeInfo(TS_REQ_get_msg_imprint(read.get()), time,
                            TS_REQ_get_nonce(read.get())))});
}

}  // namespace zu::test
