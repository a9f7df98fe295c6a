#include "platform/property_list_json.h"

#include <plist/plist.h>
#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>

#include "platform/linux/json_document.h"
#include "support/allocated.h"
#include "support/scoped_handle.h"

namespace zu::platform {
namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

struct PlistTraits {
  using Value = plist_t;
  static constexpr Value kNone = nullptr;
  static void Close(Value node) noexcept { ::plist_free(node); }
};
// A node, with all below it, that no other node has.
using ScopedPlist = ScopedHandle<PlistTraits>;

// The platform sorts keys by their UTF-16 units. That is the order of the bytes
// of UTF-8, but for U+E000 to U+FFFF (first byte EE or EF), which follow what
// takes a pair of units.
struct Utf16Order {
  bool operator()(std::string_view a, std::string_view b) const {
    const auto rank = [](char c) {
      const auto byte = static_cast<unsigned char>(c);
      return byte == 0xEE || byte == 0xEF ? byte + 0x10 : byte + 0;
    };
    return std::ranges::lexicographical_compare(a, b, {}, rank, rank);
  }
};

ScopedPlist ConvertNode(const element& value);

ScopedPlist ConvertArray(const simdjson::dom::array& array) {
  ScopedPlist node(::plist_new_array());
  for (const element item : array) {
    ScopedPlist converted = ConvertNode(item);
    if (!converted.valid()) return {};
    ::plist_array_append_item(node.get(), converted.release());
  }
  return node;
}

// The library takes texts only up to a NUL, and XML has no way to write one.
bool HasNul(std::string_view text) { return text.find('\0') != text.npos; }

ScopedPlist ConvertObject(const simdjson::dom::object& object) {
  // Of members with the same name the first counts, as in JsonReader.
  std::map<std::string, element, Utf16Order> members;
  for (const auto& [name, value] : object) members.emplace(name, value);
  ScopedPlist node(::plist_new_dict());
  for (const auto& [name, value] : members) {
    ScopedPlist converted = ConvertNode(value);
    if (!converted.valid() || HasNul(name)) return {};
    ::plist_dict_set_item(node.get(), name.c_str(), converted.release());
  }
  return node;
}

ScopedPlist ConvertString(std::string_view text) {
  if (HasNul(text)) return {};
  return ScopedPlist(::plist_new_string(std::string(text).c_str()));
}

// From text, because the library's constructor cannot tell whether the number
// is signed, and takes what is above the greatest signed one for negative.
template <typename Integer>
ScopedPlist ConvertInteger(Integer value) {
  const std::string text = "<plist version=\"1.0\"><integer>" +
                           std::to_string(value) + "</integer></plist>";
  plist_t node = nullptr;
  ::plist_from_xml(text.data(), static_cast<uint32_t>(text.size()), &node);
  return ScopedPlist(node);
}

// Invalid for what a property list cannot hold.
ScopedPlist ConvertNode(const element& value) {
  switch (value.type()) {
    case element_type::ARRAY:
      return ConvertArray(value.get_array());
    case element_type::OBJECT:
      return ConvertObject(value.get_object());
    case element_type::STRING:
      return ConvertString(value.get_string());
    case element_type::INT64:
      return ConvertInteger(value.get_int64().value());
    case element_type::UINT64:
      return ConvertInteger(value.get_uint64().value());
    case element_type::DOUBLE:
      return ScopedPlist(::plist_new_real(value.get_double()));
    case element_type::BOOL:
      return ScopedPlist(::plist_new_bool(value.get_bool() ? 1 : 0));
    case element_type::NULL_VALUE:
      break;
  }
  return {};
}

}  // namespace

std::optional<std::string> PropertyListFromJson(std::string_view json) {
  simdjson::dom::parser parser;
  const auto document =
      ParseDocument(parser, json.data(), json.size(), json.size());
  if (!document) return std::nullopt;
  const ScopedPlist list = ConvertNode(*document);
  if (!list.valid()) return std::nullopt;
  char* written = nullptr;
  uint32_t size = 0;
  ::plist_to_xml(list.get(), &written, &size);
  const Allocated<char> text(written);
  if (!text) return std::nullopt;
  return std::string(text.get(), size);
}

}  // namespace zu::platform
