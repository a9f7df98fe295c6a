// Who signed: thumbprints, and the compound query of the public interface.
#ifndef ZU_SIGNING_SIGNER_INFORMATION_H_
#define ZU_SIGNING_SIGNER_INFORMATION_H_

#include <cstdint>

namespace zu::signing {

// Where the compound query's answers go; shapes as in the public header.
struct SignerInformation {
  uint64_t* is_signed = nullptr;
  uint32_t* is_valid = nullptr;
  char* issuer_name = nullptr;
  char* signer_name_copy = nullptr;
  char* signer_name = nullptr;
  char* signing_date = nullptr;
  char* thumbprint_hex = nullptr;
};

// False when an argument is missing or the thumbprint of a signed file cannot
// be had.
bool QuerySigner(const char* path, bool check_revocation,
                 const SignerInformation& information);

}  // namespace zu::signing

#endif  // ZU_SIGNING_SIGNER_INFORMATION_H_
