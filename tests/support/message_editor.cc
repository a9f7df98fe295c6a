#include "tests/support/message_editor.h"

#include <algorithm>
#include <stdexcept>

#include "platform/linux/signing/cms/ber.h"

namespace zu::test {

using Bytes = std::vector<std::byte>;

BerNode BerNode::Parse(std::span<const std::byte> bytes) {
  const platform::BerElement element =
      platform::BerReader(bytes).Take().value();
  BerNode node{element.tag};
  if ((element.tag & platform::kBerConstructed) == 0) {
    node.octets.assign(element.content.begin(), element.content.end());
    return node;
  }
  platform::BerReader parts(element.content);
  while (!parts.AtEnd()) {
    node.parts.push_back(Parse(parts.Take().value().encoding));
  }
  return node;
}

Bytes BerNode::Encode() const {
  Bytes content = octets;
  for (const BerNode& part : parts) {
    const Bytes encoding = part.Encode();
    content.insert(content.end(), encoding.begin(), encoding.end());
  }
  return platform::EncodeDer(tag, {content});
}

BerNode& EditableMessage::Attribute(const std::vector<uint8_t>& end) {
  const auto ends_so = [&](const BerNode& attribute) {
    const Bytes& type = attribute.parts[0].octets;
    return type.size() >= end.size() &&
           std::ranges::equal(end, std::span(type).last(end.size()), {}, {},
                              std::to_integer<uint8_t>);
  };
  return *std::ranges::find_if(attributes().parts, ends_so);
}

void EditableMessage::SignAttributes(
    const platform::SigningIdentity& identity) {
  BerNode hashed = attributes();
  hashed.tag = platform::kBerSet;
  signature().octets = SignBytes(identity, hashed.Encode());
}

Bytes SignBytes(const platform::SigningIdentity& identity,
                std::span<const std::byte> bytes) {
  const platform::DigestContextPtr context(EVP_MD_CTX_new());
  Bytes signature(1024);
  size_t size = signature.size();
  if (EVP_DigestSignInit_ex(context.get(), nullptr, "SHA256",
                            identity.context->get(), nullptr,
                            identity.key.get(), nullptr) != 1 ||
      EVP_DigestSign(context.get(),
                     reinterpret_cast<unsigned char*>(signature.data()), &size,
                     reinterpret_cast<const unsigned char*>(bytes.data()),
                     bytes.size()) != 1) {
    throw std::runtime_error("signature");
  }
  signature.resize(size);
  return signature;
}

}  // namespace zu::test
