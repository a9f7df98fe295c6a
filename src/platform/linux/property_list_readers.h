// The two forms in which property lists come. For PropertyList::Parse only.
#ifndef ZU_PLATFORM_LINUX_PROPERTY_LIST_READERS_H_
#define ZU_PLATFORM_LINUX_PROPERTY_LIST_READERS_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/linux/property_list.h"

namespace zu::platform {

// UTF-8 only. A document type is skipped and may declare nothing.
class XmlPropertyListReader {
 public:
  XmlPropertyListReader(std::string_view text, PropertyList& list)
      : rest_(text), list_(list) {}

  [[nodiscard]] bool Read();

 private:
  struct Tag {
    std::string_view name;
    bool closing = false;
    bool empty = false;  // <name/>
  };

  // White space, comments and processing instructions.
  [[nodiscard]] bool SkipBetweenTags();
  [[nodiscard]] bool SkipBehind(std::string_view end);
  std::optional<Tag> TakeTag();
  [[nodiscard]] bool ReadValue();
  // The scalar that `tag` opens, up to and with its closing tag.
  std::optional<uint32_t> TakeScalar(const Tag& tag);
  // Its text, without markup, appended to the list's.
  std::optional<PropertyList::Node::Range> TakeText(const Tag& tag);
  [[nodiscard]] bool AppendUnescaped(std::string_view raw);

  uint32_t Add(const PropertyList::Node& node);

  std::string_view rest_;
  PropertyList& list_;
};

class BinaryPropertyListReader {
 public:
  BinaryPropertyListReader(std::span<const std::byte> bytes, PropertyList& list)
      : bytes_(bytes), list_(list) {}

  [[nodiscard]] bool Read();

 private:
  // What lies below an object, itself included.
  struct Extent {
    uint8_t height = 0;  // 0: not read yet.
    uint32_t values = 0;
  };

  uint64_t Number(size_t offset, size_t size) const;
  [[nodiscard]] bool ReadObject(size_t index, size_t depth);
  [[nodiscard]] bool ReadNumber(size_t marker, size_t offset,
                                PropertyList::Node& node) const;
  [[nodiscard]] bool ReadText(size_t kind, size_t offset, size_t count,
                              PropertyList::Node& node);
  // Objects that an array or dictionary lists; false when they are not in it.
  [[nodiscard]] bool ReadChildren(size_t offset, size_t count,
                                  PropertyList::Node& node);

  const std::span<const std::byte> bytes_;
  PropertyList& list_;
  size_t offset_size_ = 0;
  size_t reference_size_ = 0;
  size_t table_ = 0;  // Where the objects' offsets start, and objects end.
  std::vector<Extent> extents_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_PROPERTY_LIST_READERS_H_
