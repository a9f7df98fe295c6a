#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <string>

#include "platform/linux/property_list_readers.h"
#include "support/utf8.h"

namespace zu::platform {
namespace {

using Node = PropertyList::Node;
using Type = PropertyList::Type;

constexpr std::string_view kSpace = " \t\r\n";

bool Take(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

void SkipSpace(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(kSpace), text.size()));
}

// What stands between "&" and ";". Absent when it means nothing.
std::optional<uint32_t> CharacterOf(std::string_view entity) {
  static constexpr struct {
    std::string_view name;
    char character;
  } kNamed[] = {
      {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"apos", '\''}, {"quot", '"'}};
  for (const auto& named : kNamed) {
    if (entity == named.name) return named.character;
  }
  if (!Take(entity, "#")) return std::nullopt;
  const int base = Take(entity, "x") ? 16 : 10;
  uint32_t code = 0;
  const auto [end, error] =
      std::from_chars(entity.data(), entity.data() + entity.size(), code, base);
  if (error != std::errc() || end != entity.data() + entity.size() ||
      code == 0 || code > 0x10ffff) {
    return std::nullopt;
  }
  return code;
}

// Decodes base64 in place, white space left out. Absent when it is not; else
// how many bytes there are.
std::optional<size_t> DecodeBase64(std::span<char> text) {
  uint32_t bits = 0;
  size_t digits = 0;
  size_t size = 0;
  size_t padding = 0;
  for (const char c : text) {
    uint32_t digit = 0;
    if (kSpace.find(c) != kSpace.npos) continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    if (c >= 'A' && c <= 'Z') {
      digit = static_cast<uint32_t>(c - 'A');
    } else if (c >= 'a' && c <= 'z') {
      digit = static_cast<uint32_t>(c - 'a') + 26;
    } else if (c >= '0' && c <= '9') {
      digit = static_cast<uint32_t>(c - '0') + 52;
    } else if (c == '+' || c == '/') {
      digit = c == '+' ? 62 : 63;
    } else {
      return std::nullopt;
    }
    if (padding != 0) return std::nullopt;
    bits = bits << 6 | digit;
    if (++digits % 4 != 1) {  // Written behind what was read.
      text[size++] = static_cast<char>(bits >> (6 - 2 * ((digits - 1) % 4)));
    }
  }
  if (digits % 4 == 1 || padding > 2) return std::nullopt;
  return size;
}

std::string_view Trimmed(std::string_view text) {
  SkipSpace(text);
  return text.substr(0, text.find_last_not_of(kSpace) + 1);
}

// What exceeds 63 bits becomes a real.
bool ParseInteger(std::string_view text, PropertyList::Node& node) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  const int base = Take(text, "0x") || Take(text, "0X") ? 16 : 10;
  uint64_t magnitude = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (error != std::errc() || end != text.data() + text.size()) return false;
  if (magnitude > uint64_t{INT64_MAX} + (negative ? 1 : 0)) {
    node.type = PropertyList::Type::kReal;
    node.real = static_cast<double>(magnitude);
    return !negative;
  }
  node.integer = static_cast<int64_t>(negative ? 0 - magnitude : magnitude);
  return true;
}

bool ParseReal(std::string_view text, double& value) {
  if (text.starts_with('+')) text.remove_prefix(1);
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

uint32_t XmlPropertyListReader::Add(const Node& node) {
  list_.nodes_.push_back(node);
  return static_cast<uint32_t>(list_.nodes_.size() - 1);
}

bool XmlPropertyListReader::SkipBehind(std::string_view end) {
  const size_t found = rest_.find(end);
  if (found == rest_.npos) return false;
  rest_.remove_prefix(found + end.size());
  return true;
}

bool XmlPropertyListReader::SkipBetweenTags() {
  for (;;) {
    SkipSpace(rest_);
    if (Take(rest_, "<!--")) {
      if (!SkipBehind("-->")) return false;
    } else if (Take(rest_, "<?")) {
      if (!SkipBehind("?>")) return false;
    } else {
      return true;
    }
  }
}

std::optional<XmlPropertyListReader::Tag> XmlPropertyListReader::TakeTag() {
  if (!SkipBetweenTags() || !Take(rest_, "<")) return std::nullopt;
  Tag tag;
  tag.closing = Take(rest_, "/");
  const size_t end = rest_.find_first_of("<>");
  if (end == rest_.npos || rest_[end] != '>') return std::nullopt;
  std::string_view inside = rest_.substr(0, end);
  rest_.remove_prefix(end + 1);
  if (inside.ends_with('/')) {
    if (tag.closing) return std::nullopt;
    tag.empty = true;
    inside.remove_suffix(1);
  }
  tag.name = inside.substr(0, inside.find_first_of(kSpace));
  return tag;
}

bool XmlPropertyListReader::Read() {
  Take(rest_, "\xef\xbb\xbf");
  if (!SkipBetweenTags()) return false;
  if (Take(rest_, "<!DOCTYPE")) {
    const size_t end = rest_.find_first_of("[>");
    if (end == rest_.npos || rest_[end] == '[') return false;
    rest_.remove_prefix(end + 1);
  }
  const std::string_view before = rest_;
  std::optional<Tag> tag = TakeTag();
  if (!tag || tag->closing) return false;
  if (tag->name != "plist") {  // A value may stand alone.
    rest_ = before;
    return ReadValue();
  }
  if (tag->empty || !ReadValue()) return false;
  tag = TakeTag();
  return tag && tag->closing && tag->name == "plist";
}

bool XmlPropertyListReader::ReadValue() {
  struct Container {
    Type type;
    size_t first;          // Of its values in `pending`.
    bool has_key = false;  // A key waits for its value.
  };
  std::vector<Container> open;
  // Values of the containers that are still open.
  std::vector<uint32_t> pending;
  for (;;) {
    const std::optional<Tag> tag = TakeTag();
    if (!tag) return false;
    Container* const parent = open.empty() ? nullptr : &open.back();
    const bool expects_key = parent != nullptr &&
                             parent->type == Type::kDictionary &&
                             !parent->has_key;
    std::optional<uint32_t> value;
    if (tag->closing) {
      const bool dictionary = tag->name == "dict";
      if (parent == nullptr || parent->has_key ||
          (!dictionary && tag->name != "array") ||
          (parent->type == Type::kDictionary) != dictionary) {
        return false;
      }
      const size_t count = pending.size() - parent->first;
      Node node;
      node.type = parent->type;
      node.range = {static_cast<uint32_t>(list_.children_.size()),
                    static_cast<uint32_t>(dictionary ? count / 2 : count)};
      list_.children_.insert(
          list_.children_.end(),
          pending.begin() + static_cast<ptrdiff_t>(parent->first),
          pending.end());
      pending.resize(parent->first);
      open.pop_back();
      value = Add(node);
    } else if (tag->name == "key") {
      if (!expects_key) return false;
      value = TakeScalar(*tag);
      if (!value) return false;
      pending.push_back(*value);
      parent->has_key = true;
      continue;
    } else if (expects_key) {
      return false;
    } else if (tag->name == "dict" || tag->name == "array") {
      const Type type = tag->name == "dict" ? Type::kDictionary : Type::kArray;
      // Its own values are one level below.
      if (open.size() + 1 >= PropertyList::kMaxDepth) return false;
      if (!tag->empty) {
        open.push_back({type, pending.size()});
        continue;
      }
      Node node;
      node.type = type;
      node.range = {};
      value = Add(node);
    } else {
      value = TakeScalar(*tag);
    }
    if (!value) return false;
    if (open.empty()) {
      list_.root_ = *value;
      return true;
    }
    pending.push_back(*value);
    open.back().has_key = false;
  }
}

std::optional<uint32_t> XmlPropertyListReader::TakeScalar(const Tag& tag) {
  const std::optional<Node::Range> range = TakeText(tag);
  if (!range) return std::nullopt;
  std::string& all = list_.text_;
  const std::string_view text = std::string_view(all).substr(range->first);
  const std::string_view trimmed = Trimmed(text);
  Node node;
  if (tag.name == "string" || tag.name == "key") {
    if (!IsValidUtf8(text)) return std::nullopt;
    node.type = Type::kString;
    node.range = *range;
    return Add(node);
  }
  if (tag.name == "data") {
    const std::optional<size_t> size =
        DecodeBase64(std::span(all).subspan(range->first));
    if (!size) return std::nullopt;
    all.resize(range->first + *size);
    node.type = Type::kData;
    node.range = {range->first, static_cast<uint32_t>(*size)};
    return Add(node);
  }
  bool good = true;
  if (tag.name == "true" || tag.name == "false") {
    good = trimmed.empty();
    node.type = Type::kBoolean;
    node.integer = tag.name == "true" ? 1 : 0;
  } else if (tag.name == "integer") {
    node.type = Type::kInteger;
    good = ParseInteger(trimmed, node);
  } else if (tag.name == "real") {
    node.type = Type::kReal;
    good = ParseReal(trimmed, node.real);
  } else if (tag.name == "date") {
    node.type = Type::kDate;
  } else {
    return std::nullopt;
  }
  all.resize(range->first);
  return good ? std::optional(Add(node)) : std::nullopt;
}

std::optional<Node::Range> XmlPropertyListReader::TakeText(const Tag& tag) {
  const size_t first = list_.text_.size();
  while (!tag.empty) {
    const size_t markup = rest_.find('<');
    if (markup == rest_.npos || !AppendUnescaped(rest_.substr(0, markup))) {
      return std::nullopt;
    }
    rest_.remove_prefix(markup);
    if (Take(rest_, "<![CDATA[")) {
      const size_t end = rest_.find("]]>");
      if (end == rest_.npos) return std::nullopt;
      list_.text_.append(rest_.substr(0, end));
      rest_.remove_prefix(end + 3);
      continue;
    }
    if (!Take(rest_, "</") || !Take(rest_, tag.name)) return std::nullopt;
    SkipSpace(rest_);
    if (!Take(rest_, ">")) return std::nullopt;
    break;
  }
  return Node::Range{static_cast<uint32_t>(first),
                     static_cast<uint32_t>(list_.text_.size() - first)};
}

bool XmlPropertyListReader::AppendUnescaped(std::string_view raw) {
  std::string& text = list_.text_;
  for (;;) {
    const size_t escape = raw.find('&');
    text.append(raw.substr(0, escape));
    if (escape == raw.npos) return true;
    raw.remove_prefix(escape + 1);
    // The longest is "#x10ffff", perhaps with zeros in front.
    const size_t end = raw.substr(0, 16).find(';');
    if (end == raw.npos) return false;
    const std::optional<uint32_t> code = CharacterOf(raw.substr(0, end));
    if (!code) return false;
    raw.remove_prefix(end + 1);
    std::array<uint16_t, 2> units = {static_cast<uint16_t>(*code)};
    const size_t count = *code > 0xffff ? 2 : 1;
    if (count == 2) {
      units = {static_cast<uint16_t>(0xd7c0 + (*code >> 10)),
               static_cast<uint16_t>(0xdc00 + (*code & 0x3ff))};
    }
    std::array<char, 2 * kUtf8BytesPerUnit> utf8;
    const std::optional<size_t> size =
        EncodeUtf8(std::span(units).first(count), utf8.data());
    if (!size) return false;
    text.append(utf8.data(), *size);
  }
}

}  // namespace zu::platform
