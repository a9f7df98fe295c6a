#include "platform/linux/json_writer.h"

#include <charconv>
#include <cmath>
#include <map>
#include <utility>

namespace zu::platform {
namespace {

using Type = PropertyList::Type;

// What follows the backslash; NUL for what needs none, 'u' for what has no
// letter of its own.
char EscapeOf(char c) {
  switch (c) {
    case '"':
    case '\\':
    case '/':
      return c;
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return static_cast<unsigned char>(c) < 0x20 ? 'u' : '\0';
  }
}

}  // namespace

bool JsonObjectWriter::Add(std::string_view name, PropertyList::Value value) {
  if (!AppendText(name)) return false;
  text_ += ':';
  if (!Append(value)) return false;
  text_ += ',';
  return true;
}

std::string JsonObjectWriter::Finish() && {
  Close('}');
  return std::move(text_);
}

bool JsonObjectWriter::Append(PropertyList::Value value) {
  if (text_.size() > kMaxSize) return false;
  switch (value.type()) {
    case Type::kDictionary:
      return AppendDictionary(value);
    case Type::kArray:
      return AppendArray(value);
    case Type::kString:
      return AppendText(*value.AsString());
    case Type::kBoolean:
      text_ += *value.AsBoolean() ? "true" : "false";
      return true;
    case Type::kInteger:
      text_ += std::to_string(*value.AsInteger());
      return true;
    case Type::kReal:
      return AppendReal(*value.AsReal());
    case Type::kData:
    case Type::kDate:
    case Type::kUid:
      break;
  }
  return false;
}

bool JsonObjectWriter::AppendDictionary(PropertyList::Value value) {
  // Of several values with the same key the last one counts.
  std::map<std::string_view, PropertyList::Value> members;
  for (size_t i = 0; i < value.size(); ++i) {
    members.insert_or_assign(value.KeyAt(i), value.EntryAt(i));
  }
  text_ += '{';
  for (const auto& [name, member] : members) {
    if (!Add(name, member)) return false;
  }
  Close('}');
  return true;
}

bool JsonObjectWriter::AppendArray(PropertyList::Value value) {
  text_ += '[';
  for (size_t i = 0; i < value.size(); ++i) {
    if (!Append(value.ItemAt(i))) return false;
    text_ += ',';
  }
  Close(']');
  return true;
}

bool JsonObjectWriter::AppendReal(double value) {
  if (!std::isfinite(value)) return false;
  char digits[32];
  const auto end = std::to_chars(std::begin(digits), std::end(digits), value,
                                 std::chars_format::general, 17);
  text_.append(digits, end.ptr);
  return true;
}

bool JsonObjectWriter::AppendText(std::string_view text) {
  if (text.size() > kMaxSize) return false;
  constexpr char kHexDigits[] = "0123456789abcdef";
  text_ += '"';
  for (const char c : text) {
    const char escape = EscapeOf(c);
    if (escape == '\0') {
      text_ += c;
      continue;
    }
    text_ += '\\';
    text_ += escape;
    if (escape == 'u') {
      text_ += c < 0x10 ? "000" : "001";
      text_ += kHexDigits[c & 0xf];
    }
  }
  text_ += '"';
  return true;
}

void JsonObjectWriter::Close(char bracket) {
  if (text_.back() == ',') {
    text_.back() = bracket;
  } else {
    text_ += bracket;
  }
}

}  // namespace zu::platform
