// Property lists, in XML or binary, read from bytes that nobody vouches for.
#ifndef ZU_PLATFORM_LINUX_PROPERTY_LIST_H_
#define ZU_PLATFORM_LINUX_PROPERTY_LIST_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zu::platform {

// All values lie side by side and refer to each other by number, so neither
// reading nor freeing a list recurses by its content.
class PropertyList {
 public:
  static constexpr size_t kMaxSize = 64 << 20;
  // What code that walks a whole list may rely on: how deep it gets, and how
  // many values it meets, those counted again that a binary list shares. No
  // value contains itself.
  static constexpr size_t kMaxDepth = 128;
  static constexpr size_t kMaxValues = 1 << 24;

  enum class Type : uint8_t {
    kDictionary,
    kArray,
    kString,
    kData,
    kBoolean,
    kInteger,  // Of 64 bits with a sign; what exceeds them is a real.
    kReal,
    kDate,  // Its time is not kept.
    kUid,
  };

  // A value as it is kept, for those who read lists.
  struct Node {
    // Characters or bytes of text_, or numbers of values in children_: in a
    // dictionary, each key before its value, and twice `count` of them.
    struct Range {
      uint32_t first;
      uint32_t count;
    };
    Type type = Type::kBoolean;
    union {
      int64_t integer = 0;  // Also a boolean's 0 or 1.
      double real;
      Range range;
    };
  };

  // A value of a list that must outlive it, as the list must what a value
  // gives out. Each accessor is absent for a value of another type.
  class Value {
   public:
    Type type() const { return node().type; }

    std::optional<std::string_view> AsString() const;  // Valid UTF-8.
    std::optional<std::span<const std::byte>> AsData() const;
    std::optional<bool> AsBoolean() const;
    std::optional<int64_t> AsInteger() const;
    std::optional<double> AsReal() const;

    // Items of an array, entries of a dictionary in the order of the list; 0
    // for everything else.
    size_t size() const;
    Value ItemAt(size_t index) const;
    std::string_view KeyAt(size_t index) const;
    Value EntryAt(size_t index) const;

    // A dictionary's value; the last one when the key is there several times.
    std::optional<Value> Find(std::string_view key) const;

   private:
    friend class PropertyList;
    Value(const PropertyList* list, uint32_t index)
        : list_(list), index_(index) {}
    const Node& node() const { return list_->nodes_[index_]; }
    Value Child(size_t index) const;

    const PropertyList* list_;
    uint32_t index_;
  };

  // Absent when the bytes are not one well-formed list, or exceed a limit.
  static std::optional<PropertyList> Parse(std::span<const std::byte> bytes);

  Value root() const { return Value(this, root_); }

 private:
  friend class XmlPropertyListReader;
  friend class BinaryPropertyListReader;

  PropertyList() = default;

  std::vector<Node> nodes_;
  std::vector<uint32_t> children_;
  std::string text_;
  uint32_t root_ = 0;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_PROPERTY_LIST_H_
