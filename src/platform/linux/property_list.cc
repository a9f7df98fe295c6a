#include "platform/linux/property_list.h"

#include "platform/linux/property_list_readers.h"

namespace zu::platform {

std::optional<PropertyList> PropertyList::Parse(
    std::span<const std::byte> bytes) {
  if (bytes.size() > kMaxSize) return std::nullopt;
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()),
                              bytes.size());
  PropertyList list;
  const bool good = text.starts_with("bplist0")
                        ? BinaryPropertyListReader(bytes, list).Read()
                        : XmlPropertyListReader(text, list).Read();
  if (!good) return std::nullopt;
  return list;
}

std::optional<std::string_view> PropertyList::Value::AsString() const {
  if (type() != Type::kString) return std::nullopt;
  return std::string_view(list_->text_)
      .substr(node().range.first, node().range.count);
}

std::optional<std::span<const std::byte>> PropertyList::Value::AsData() const {
  if (type() != Type::kData) return std::nullopt;
  return std::as_bytes(std::span(list_->text_))
      .subspan(node().range.first, node().range.count);
}

std::optional<bool> PropertyList::Value::AsBoolean() const {
  if (type() != Type::kBoolean) return std::nullopt;
  return node().integer != 0;
}

std::optional<int64_t> PropertyList::Value::AsInteger() const {
  if (type() != Type::kInteger) return std::nullopt;
  return node().integer;
}

std::optional<double> PropertyList::Value::AsReal() const {
  if (type() != Type::kReal) return std::nullopt;
  return node().real;
}

size_t PropertyList::Value::size() const {
  const bool container = type() == Type::kDictionary || type() == Type::kArray;
  return container ? node().range.count : 0;
}

PropertyList::Value PropertyList::Value::Child(size_t index) const {
  return Value(list_, list_->children_[node().range.first + index]);
}

PropertyList::Value PropertyList::Value::ItemAt(size_t index) const {
  return Child(index);
}

std::string_view PropertyList::Value::KeyAt(size_t index) const {
  return *Child(2 * index).AsString();
}

PropertyList::Value PropertyList::Value::EntryAt(size_t index) const {
  return Child(2 * index + 1);
}

std::optional<PropertyList::Value> PropertyList::Value::Find(
    std::string_view key) const {
  if (type() != Type::kDictionary) return std::nullopt;
  for (size_t index = size(); index-- > 0;) {
    if (KeyAt(index) == key) return EntryAt(index);
  }
  return std::nullopt;
}

}  // namespace zu::platform
