// Reading JSON text with the platform's parser.
#ifndef ZU_PLATFORM_JSON_H_
#define ZU_PLATFORM_JSON_H_

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace zu::platform {

// Parses one text after the other and keeps its memory between them. For one
// thread at a time.
class JsonReader {
 public:
  JsonReader();
  ~JsonReader();
  JsonReader(const JsonReader&) = delete;
  JsonReader& operator=(const JsonReader&) = delete;

  // Reads `size` bytes of UTF-8 text. True when all of it is one valid JSON
  // array or object no deeper than 512 levels; a scalar at the top is refused.
  // `readable` (at least `size`) is how many bytes may be read from `text` on:
  // kJsonTail more than the size save a copy. The text is not changed and not
  // needed any more after the call.
  [[nodiscard]] bool Parse(const char* text, size_t size, size_t readable);

  // The string under `name` in the object that Parse read last. Absent when
  // the top was an array, the member is missing or it is not a string.
  [[nodiscard]] std::optional<std::string> StringMember(
      std::string_view name) const;

  // Lets go of the memory kept from earlier texts.
  void Trim();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

inline constexpr size_t kJsonTail = 64;

}  // namespace zu::platform

#endif  // ZU_PLATFORM_JSON_H_
