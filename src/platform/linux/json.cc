#include "platform/json.h"

#include <simdjson.h>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <system_error>

#include "platform/linux/json_document.h"
#include "platform/linux/json_numbers.h"

namespace zu::platform {
namespace {

// The parser counts the level it is about to enter, so this admits 512.
constexpr size_t kMaxDepth = 513;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Whether 64 bits hold the number, signed or unsigned.
bool Fits64Bits(std::string_view digits, bool negative) {
  uint64_t value = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return error == std::errc() && (!negative || value <= uint64_t{1} << 63);
}

}  // namespace

std::string WidenIntegers(std::string_view text) {
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
      } else if (!Fits64Bits(text.substr(first, i + 1 - first),
                             first > 0 && text[first - 1] == '-')) {
        wide.append(".0");
      }
    }
  }
  return wide;
}

std::optional<simdjson::dom::element> ParseDocument(
    simdjson::dom::parser& parser, const char* text, size_t size,
    size_t readable) {
  static_assert(kJsonTail >= simdjson::SIMDJSON_PADDING);
  // The capacity is set apart because the depth goes with it, and only ever
  // grows, so that texts of changing sizes do not allocate each time.
  const size_t capacity = parser.capacity() > size ? parser.capacity() : size;
  if (parser.max_depth() != kMaxDepth || parser.capacity() < size) {
    if (parser.allocate(capacity, kMaxDepth) != simdjson::SUCCESS) {
      return std::nullopt;
    }
  }
  const bool copy = readable - size < simdjson::SIMDJSON_PADDING;
  auto result = parser.parse(text, size, copy);
  if (result.error() == simdjson::NUMBER_ERROR) {
    // Either no number at all, or an integer beyond 64 bits, which is one.
    const std::string wide = WidenIntegers({text, size});
    if (wide.size() == size) return std::nullopt;
    result = parser.parse(wide);
  }
  simdjson::dom::element root;
  if (result.get(root) != simdjson::SUCCESS) return std::nullopt;
  if (!root.is_object() && !root.is_array()) return std::nullopt;
  return root;
}

struct JsonReader::State {
  simdjson::dom::parser parser;
  simdjson::dom::element root;
};

JsonReader::JsonReader() : state_(std::make_unique<State>()) {}
JsonReader::~JsonReader() = default;

bool JsonReader::Parse(const char* text, size_t size, size_t readable) {
  const auto root = ParseDocument(state_->parser, text, size, readable);
  if (root) state_->root = *root;
  return root.has_value();
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
