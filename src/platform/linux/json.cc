#include "platform/json.h"

#include <simdjson.h>
#include <cstring>

#include "platform/linux/json_numbers.h"

namespace zu::platform {
namespace {

// The parser counts the level it is about to enter, so this admits 512.
constexpr size_t kMaxDepth = 513;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

std::string WidenIntegers(std::string_view text) {
  // Every integer of 18 digits fits 64 bits, with a sign too.
  constexpr size_t kSafeDigits = 18;
  std::string wide;
  wide.reserve(text.size() + 64);
  bool in_string = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    wide.push_back(c);
    if (c == '"') {
      in_string = !in_string;
    } else if (in_string && c == '\\') {
      if (++i < text.size()) wide.push_back(text[i]);
    } else if (!in_string && IsDigit(c)) {
      const size_t first = i;
      while (i + 1 < text.size() && IsDigit(text[i + 1])) {
        wide.push_back(text[++i]);
      }
      const bool follows = i + 1 < text.size();
      const char next = follows ? text[i + 1] : '\0';
      // A fraction or exponent may follow, and its digits need no care.
      if (next == '.' || next == 'e' || next == 'E') {
        while (i + 1 < text.size() &&
               std::strchr("0123456789.eE+-", text[i + 1]) != nullptr) {
          wide.push_back(text[++i]);
        }
      } else if (i + 1 - first > kSafeDigits) {
        wide.append(".0");
      }
    }
  }
  return wide;
}

struct JsonReader::State {
  simdjson::dom::parser parser;
  simdjson::dom::element root;
};

JsonReader::JsonReader() : state_(std::make_unique<State>()) {}
JsonReader::~JsonReader() = default;

bool JsonReader::Parse(const char* text, size_t size, size_t readable) {
  static_assert(kJsonTail >= simdjson::SIMDJSON_PADDING);
  simdjson::dom::parser& parser = state_->parser;
  // The capacity is set apart because the depth goes with it, and only ever
  // grows, so that texts of changing sizes do not allocate each time.
  const size_t capacity = parser.capacity() > size ? parser.capacity() : size;
  if (parser.max_depth() != kMaxDepth || parser.capacity() < size) {
    if (parser.allocate(capacity, kMaxDepth) != simdjson::SUCCESS) return false;
  }
  const bool copy = readable - size < simdjson::SIMDJSON_PADDING;
  auto result = parser.parse(text, size, copy);
  if (result.error() == simdjson::NUMBER_ERROR) {
    // Either no number at all, or an integer beyond 64 bits, which is one.
    const std::string wide = WidenIntegers({text, size});
    if (wide.size() == size) return false;
    result = parser.parse(wide);
  }
  if (result.get(state_->root) != simdjson::SUCCESS) return false;
  return state_->root.is_object() || state_->root.is_array();
}

std::optional<std::string> JsonReader::StringMember(
    std::string_view name) const {
  std::string_view value;
  simdjson::dom::object object;
  if (state_->root.get(object) != simdjson::SUCCESS) return std::nullopt;
  if (object.at_key(name).get(value) != simdjson::SUCCESS) return std::nullopt;
  return std::string(value);
}

void JsonReader::Trim() { state_ = std::make_unique<State>(); }

}  // namespace zu::platform
