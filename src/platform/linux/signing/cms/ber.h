// Reading BER as it lies: an element at a time, and no further than asked for.
#ifndef ZU_PLATFORM_LINUX_SIGNING_CMS_BER_H_
#define ZU_PLATFORM_LINUX_SIGNING_CMS_BER_H_

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <vector>

namespace zu::platform {

// Identifier octets: class, whether constructed, and number.
inline constexpr uint8_t kBerBoolean = 0x01;
inline constexpr uint8_t kBerInteger = 0x02;
inline constexpr uint8_t kBerOctetString = 0x04;
inline constexpr uint8_t kBerNull = 0x05;
inline constexpr uint8_t kBerObjectIdentifier = 0x06;
inline constexpr uint8_t kBerSequence = 0x30;
inline constexpr uint8_t kBerSet = 0x31;
inline constexpr uint8_t kBerConstructed = 0x20;
// "[0]" and "[1]", primitive; with kBerConstructed they hold other elements.
inline constexpr uint8_t kBerContext0 = 0x80;
inline constexpr uint8_t kBerContext1 = 0x81;

// Borrows from the bytes that were read.
struct BerElement {
  uint8_t tag = 0;
  std::span<const std::byte> content;   // Without header and end mark.
  std::span<const std::byte> encoding;  // With them.
};

// Elements one behind the other. Lengths may be indefinite; tag numbers from
// 31 on are not supported. Takes time proportional to the size of what it
// takes, however that is nested, and no memory.
class BerReader {
 public:
  explicit BerReader(std::span<const std::byte> bytes) : rest_(bytes) {}

  bool AtEnd() const { return rest_.empty(); }
  std::span<const std::byte> rest() const { return rest_; }

  // The next element; with `tag`, only if it is such a one. Absent when there
  // is none or it is broken; the reader then stays where it was.
  std::optional<BerElement> Take();
  std::optional<BerElement> Take(uint8_t tag);
  // Takes an element and reads on inside it. Empty when there is none.
  BerReader Enter(uint8_t tag);

 private:
  std::span<const std::byte> rest_;
};

// The octets of a string with this (primitive) tag, which may be constructed
// of several strings. Absent when the element is none, or its parts nest
// unreasonably deep.
std::optional<std::vector<std::byte>> BerOctets(const BerElement& element,
                                                uint8_t tag = kBerOctetString);

// Takes an AlgorithmIdentifier: the libcrypto NID of its algorithm, NID_undef
// for those that it does not know. Parameters are ignored. Absent when there
// is no such element.
std::optional<int> TakeAlgorithm(BerReader& reader);

// The libcrypto NID of an object identifier; NID_undef as well when the
// element is none.
int NidOf(const BerElement& element);

// A UTCTime or GeneralizedTime in seconds of the Unix epoch, rounded down.
std::optional<int64_t> BerTime(const BerElement& element);

// An element in DER, with the parts one behind the other as its content.
std::vector<std::byte> EncodeDer(
    uint8_t tag, std::initializer_list<std::span<const std::byte>> parts);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_CMS_BER_H_
