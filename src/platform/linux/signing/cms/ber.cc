#include "platform/linux/signing/cms/ber.h"

#include <openssl/asn1.h>
#include <openssl/objects.h>
#include <ctime>

#include "platform/linux/signing/openssl_ptr.h"

namespace zu::platform {
namespace {

using TimePtr = OpenSslPtr<ASN1_TIME, &ASN1_TIME_free>;

constexpr uint8_t kEndOfContents = 0;
constexpr uint8_t kLongForm = 0x80;  // Alone: the length is indefinite.
constexpr int kMaxStringDepth = 8;

struct Header {
  uint8_t tag = 0;
  bool indefinite = false;
  size_t size = 2;
  size_t content_size = 0;  // 0 when indefinite.
};

// The content, too, lies within `bytes`.
std::optional<Header> ParseHeader(std::span<const std::byte> bytes) {
  Header header;
  if (bytes.size() < header.size) return std::nullopt;
  header.tag = std::to_integer<uint8_t>(bytes[0]);
  if ((header.tag & 0x1f) == 0x1f) return std::nullopt;
  const auto first = std::to_integer<uint8_t>(bytes[1]);
  if (first == kLongForm) {
    if ((header.tag & kBerConstructed) == 0) return std::nullopt;
    header.indefinite = true;
    return header;
  }
  header.content_size = first;
  if (first > kLongForm) {
    const size_t octets = first - kLongForm;
    if (octets > sizeof(size_t) || octets > bytes.size() - header.size) {
      return std::nullopt;
    }
    header.content_size = 0;
    for (const std::byte octet : bytes.subspan(header.size, octets)) {
      header.content_size =
          header.content_size << 8 | std::to_integer<size_t>(octet);
    }
    header.size += octets;
  }
  if (header.content_size > bytes.size() - header.size) return std::nullopt;
  return header;
}

bool AppendOctets(const BerElement& element, uint8_t tag, int depth,
                  std::vector<std::byte>& octets) {
  if (element.tag == tag) {
    octets.insert(octets.end(), element.content.begin(), element.content.end());
    return true;
  }
  if (element.tag != (tag | kBerConstructed) || depth == kMaxStringDepth) {
    return false;
  }
  // Whatever the string's own tag is, its parts have the universal one.
  BerReader parts(element.content);
  while (!parts.AtEnd()) {
    const auto part = parts.Take();
    if (!part || !AppendOctets(*part, kBerOctetString, depth + 1, octets)) {
      return false;
    }
  }
  return true;
}

// What one of libcrypto's d2i functions makes of the whole element.
template <typename Ptr, auto kRead>
Ptr Decode(const BerElement& element) {
  const auto* position =
      reinterpret_cast<const unsigned char*>(element.encoding.data());
  return Ptr(
      kRead(nullptr, &position, static_cast<long>(element.encoding.size())));
}

}  // namespace

std::optional<BerElement> BerReader::Take() {
  const std::optional<Header> header = ParseHeader(rest_);
  if (!header || header->tag == kEndOfContents) return std::nullopt;
  size_t end = header->size + header->content_size;
  size_t content_end = end;
  // Definite elements are passed over whole, so a counter is enough.
  for (size_t open = header->indefinite ? 1 : 0; open > 0;) {
    const std::optional<Header> inner = ParseHeader(rest_.subspan(end));
    if (!inner) return std::nullopt;
    content_end = end;
    end += inner->size + inner->content_size;
    if (inner->tag == kEndOfContents) {
      if (end - content_end != 2) return std::nullopt;
      --open;
    } else if (inner->indefinite) {
      ++open;
    }
  }
  const BerElement element{
      header->tag, rest_.subspan(header->size, content_end - header->size),
      rest_.first(end)};
  rest_ = rest_.subspan(end);
  return element;
}

std::optional<BerElement> BerReader::Take(uint8_t tag) {
  // The first octet decides before the end of another element is looked for.
  if (rest_.empty() || std::to_integer<uint8_t>(rest_.front()) != tag) {
    return std::nullopt;
  }
  return Take();
}

BerReader BerReader::Enter(uint8_t tag) {
  const auto element = Take(tag);
  return BerReader(element ? element->content : std::span<const std::byte>());
}

std::optional<std::vector<std::byte>> BerOctets(const BerElement& element,
                                                uint8_t tag) {
  std::vector<std::byte> octets;
  if (!AppendOctets(element, tag, 0, octets)) return std::nullopt;
  return octets;
}

std::optional<int> TakeAlgorithm(BerReader& reader) {
  const auto algorithm = reader.Enter(kBerSequence).Take(kBerObjectIdentifier);
  if (!algorithm) return std::nullopt;
  return NidOf(*algorithm);
}

int NidOf(const BerElement& element) {
  const auto object = Decode<ObjectPtr, &d2i_ASN1_OBJECT>(element);
  return object ? OBJ_obj2nid(object.get()) : NID_undef;
}

std::optional<int64_t> BerTime(const BerElement& element) {
  const auto time = Decode<TimePtr, &d2i_ASN1_TIME>(element);
  std::tm fields{};
  if (!time || ASN1_TIME_to_tm(time.get(), &fields) != 1) return std::nullopt;
  return ::timegm(&fields);
}

std::vector<std::byte> EncodeDer(
    uint8_t tag, std::initializer_list<std::span<const std::byte>> parts) {
  size_t size = 0;
  for (const auto part : parts) size += part.size();
  std::vector<std::byte> der{std::byte{tag}};
  if (size < kLongForm) {
    der.push_back(static_cast<std::byte>(size));
  } else {
    int octets = 1;
    while (octets < static_cast<int>(sizeof(size)) && size >> (8 * octets)) {
      ++octets;
    }
    der.push_back(static_cast<std::byte>(kLongForm + octets));
    for (int i = octets - 1; i >= 0; --i) {
      der.push_back(static_cast<std::byte>(size >> (8 * i)));
    }
  }
  for (const auto part : parts) der.insert(der.end(), part.begin(), part.end());
  return der;
}

}  // namespace zu::platform
