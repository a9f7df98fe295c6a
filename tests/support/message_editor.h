// Taking CMS messages apart, changing them and putting them together again.
#ifndef ZU_TESTS_SUPPORT_MESSAGE_EDITOR_H_
#define ZU_TESTS_SUPPORT_MESSAGE_EDITOR_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/linux/signing/signer/signing_identity.h"

namespace zu::test {

struct BerNode {
  // `bytes` hold one well-formed element.
  static BerNode Parse(std::span<const std::byte> bytes);
  std::vector<std::byte> Encode() const;

  uint8_t tag = 0;
  std::vector<std::byte> octets = {};  // Of a primitive element.
  std::vector<BerNode> parts = {};     // Of a constructed one.
};

// A SignedData message with one signer.
struct EditableMessage {
  BerNode root;

  BerNode& data() { return root.parts[1].parts[0]; }
  BerNode& type() { return data().parts[2].parts[0]; }
  BerNode& certificates() { return data().parts[3]; }
  BerNode& signers() { return data().parts.back(); }
  BerNode& signer() { return signers().parts[0]; }
  BerNode& attributes() { return signer().parts[3]; }
  BerNode& signature_algorithm() { return signer().parts[4].parts[0]; }
  BerNode& signature() { return signer().parts[5]; }

  // The signed attribute whose identifier ends in these octets.
  BerNode& Attribute(const std::vector<uint8_t>& end);
  // Signs the attributes anew, as they lie.
  void SignAttributes(const platform::SigningIdentity& identity);
};

// With SHA-256.
std::vector<std::byte> SignBytes(const platform::SigningIdentity& identity,
                                 std::span<const std::byte> bytes);

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_MESSAGE_EDITOR_H_
