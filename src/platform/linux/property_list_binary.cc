#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "platform/linux/property_list_readers.h"
#include "support/utf8.h"

namespace zu::platform {
namespace {

using Type = PropertyList::Type;

constexpr size_t kHeaderSize = 8;
constexpr size_t kTrailerSize = 32;
constexpr uint8_t kBeingRead = 0xff;
static_assert(PropertyList::kMaxDepth < kBeingRead);

// The upper halves of the bytes that objects start with.
enum Kind : size_t {
  kSimple = 0x0,
  kIntegerKind = 0x1,
  kRealKind = 0x2,
  kDateKind = 0x3,
  kDataKind = 0x4,
  kAsciiKind = 0x5,
  kUtf16Kind = 0x6,
  kUidKind = 0x8,
  kArrayKind = 0xa,
  kDictionaryKind = 0xd,
};

}  // namespace

uint64_t BinaryPropertyListReader::Number(size_t offset, size_t size) const {
  uint64_t value = 0;
  for (const std::byte byte : bytes_.subspan(offset, size)) {
    value = value << 8 | std::to_integer<uint64_t>(byte);
  }
  return value;
}

bool BinaryPropertyListReader::Read() {
  if (bytes_.size() < kHeaderSize + kTrailerSize) return false;
  const size_t trailer = bytes_.size() - kTrailerSize;
  offset_size_ = Number(trailer + 6, 1);
  reference_size_ = Number(trailer + 7, 1);
  const uint64_t count = Number(trailer + 8, 8);
  const uint64_t root = Number(trailer + 16, 8);
  const uint64_t table = Number(trailer + 24, 8);
  if (offset_size_ - 1 > 7 || reference_size_ - 1 > 7 || table < kHeaderSize ||
      table > trailer || root >= count ||
      count > (trailer - table) / offset_size_ ||
      count > table - kHeaderSize) {  // An object has at least one byte.
    return false;
  }
  table_ = static_cast<size_t>(table);
  list_.nodes_.resize(static_cast<size_t>(count));
  extents_.resize(static_cast<size_t>(count));
  list_.root_ = static_cast<uint32_t>(root);
  return ReadObject(list_.root_, 1);
}

bool BinaryPropertyListReader::ReadObject(size_t index, size_t depth) {
  Extent& extent = extents_[index];
  if (extent.height == kBeingRead || depth > PropertyList::kMaxDepth) {
    return false;
  }
  if (extent.height != 0) {
    return depth + extent.height - 1 <= PropertyList::kMaxDepth;
  }
  extent = {1, 1};

  const uint64_t start = Number(table_ + index * offset_size_, offset_size_);
  if (start < kHeaderSize || start >= table_) return false;
  auto offset = static_cast<size_t>(start);
  const size_t marker = Number(offset++, 1);
  const size_t kind = marker >> 4;
  uint64_t count = marker & 0xf;
  PropertyList::Node& node = list_.nodes_[index];
  if (kind < kDataKind || kind == kUidKind) {
    return ReadNumber(marker, offset, node);
  }
  if (count == 0xf) {  // An integer of its own follows.
    if (offset >= table_ || Number(offset, 1) >> 2 != kIntegerKind << 2) {
      return false;
    }
    const size_t size = size_t{1} << (Number(offset++, 1) & 3);
    if (size > table_ - offset) return false;
    count = Number(offset, size);
    offset += size;
  }
  if (count > table_ - offset) return false;
  const auto length = static_cast<size_t>(count);
  if (kind == kArrayKind || kind == kDictionaryKind) {
    node.type = kind == kArrayKind ? Type::kArray : Type::kDictionary;
    extent.height = kBeingRead;
    if (!ReadChildren(offset, length, node)) return false;
    uint8_t height = 0;
    uint64_t values = 1;
    const size_t references = length * (node.type == Type::kDictionary ? 2 : 1);
    for (size_t i = 0; i < references; ++i) {
      const uint32_t child = list_.children_[node.range.first + i];
      if (!ReadObject(child, depth + 1)) return false;
      if (i % 2 == 0 && node.type == Type::kDictionary &&
          list_.nodes_[child].type != Type::kString) {
        return false;
      }
      height = std::max(height, extents_[child].height);
      values += extents_[child].values;
    }
    if (values > PropertyList::kMaxValues) return false;
    extent = {static_cast<uint8_t>(height + 1), static_cast<uint32_t>(values)};
    return true;
  }
  return ReadText(kind, offset, length, node);
}

bool BinaryPropertyListReader::ReadNumber(size_t marker, size_t offset,
                                          PropertyList::Node& node) const {
  if (marker == 0x08 || marker == 0x09) {
    node.type = Type::kBoolean;
    node.integer = marker & 1;
    return true;
  }
  const size_t kind = marker >> 4;
  const size_t low = marker & 0xf;
  if (kind == kSimple || (kind != kUidKind && low > 4)) return false;
  size_t size = kind == kUidKind ? low + 1 : size_t{1} << low;
  if (size > table_ - offset) return false;
  const bool unsigned_64 = size == 16 && kind == kIntegerKind;
  if (unsigned_64) {  // With a sign, but only this far.
    if (Number(offset, 8) != 0) return false;
    offset += 8;
    size = 8;
  }
  if (size > 8) return false;
  const uint64_t value = Number(offset, size);
  switch (kind) {
    case kIntegerKind:  // Only 8 bytes have a sign.
      if (unsigned_64 && value > INT64_MAX) {
        node.type = Type::kReal;
        node.real = static_cast<double>(value);
        return true;
      }
      node.type = Type::kInteger;
      node.integer = static_cast<int64_t>(value);
      return true;
    case kRealKind:
      node.type = Type::kReal;
      if (size == 4) {
        node.real = std::bit_cast<float>(static_cast<uint32_t>(value));
      } else {
        node.real = std::bit_cast<double>(value);
      }
      return size >= 4;
    case kDateKind:
      node.type = Type::kDate;
      return size == 8;
    default:
      node.type = Type::kUid;
      node.integer = static_cast<int64_t>(value);
      return true;
  }
}

bool BinaryPropertyListReader::ReadText(size_t kind, size_t offset,
                                        size_t count,
                                        PropertyList::Node& node) {
  std::string& text = list_.text_;
  const size_t first = text.size();
  // Only objects that overlap have more text than the list has bytes; UTF-8
  // takes up to three for two.
  if (first > 2 * bytes_.size()) return false;
  if (kind == kUtf16Kind) {
    if (count > (table_ - offset) / 2) return false;
    std::vector<uint16_t> units(count);
    for (size_t i = 0; i < count; ++i) {
      units[i] = static_cast<uint16_t>(Number(offset + 2 * i, 2));
    }
    text.resize(first + kUtf8BytesPerUnit * count);
    const auto size = EncodeUtf8(units, text.data() + first);
    if (!size) return false;
    text.resize(first + *size);
  } else if (kind == kAsciiKind || kind == kDataKind) {
    text.append(reinterpret_cast<const char*>(bytes_.data()) + offset, count);
  } else {
    return false;
  }
  node.type = kind == kDataKind ? Type::kData : Type::kString;
  node.range = {static_cast<uint32_t>(first),
                static_cast<uint32_t>(text.size() - first)};
  return kind == kDataKind || IsValidUtf8(std::string_view(text).substr(first));
}

bool BinaryPropertyListReader::ReadChildren(size_t offset, size_t count,
                                            PropertyList::Node& node) {
  const bool dictionary = node.type == Type::kDictionary;
  const size_t references = dictionary ? 2 * count : count;
  std::vector<uint32_t>& children = list_.children_;
  const size_t first = children.size();
  // The second again for objects that overlap.
  if (references > (table_ - offset) / reference_size_ ||
      references > bytes_.size() - std::min(first, bytes_.size())) {
    return false;
  }
  for (size_t i = 0; i < references; ++i) {
    // All keys lie before all values.
    const size_t place = dictionary ? i / 2 + (i % 2) * count : i;
    const uint64_t child =
        Number(offset + place * reference_size_, reference_size_);
    if (child >= list_.nodes_.size()) return false;
    children.push_back(static_cast<uint32_t>(child));
  }
  node.range = {static_cast<uint32_t>(first), static_cast<uint32_t>(count)};
  return true;
}

}  // namespace zu::platform
