// Values of property lists as JSON, written as the platform's writer does it:
// compact, in UTF-8, with "/" escaped and seventeen digits of a real number.
#ifndef ZU_PLATFORM_LINUX_JSON_WRITER_H_
#define ZU_PLATFORM_LINUX_JSON_WRITER_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/linux/property_list.h"

namespace zu::platform {

// One object. Once a function has returned false it is of no use.
class JsonObjectWriter {
 public:
  // From about this size on a text is too long. A small list that shares its
  // values can stand for one that no memory holds.
  static constexpr size_t kMaxSize = 16 << 20;

  // False when JSON cannot tell the value (data, dates, references, numbers
  // that are not finite), or the text gets too long.
  [[nodiscard]] bool Add(std::string_view name, PropertyList::Value value);

  // The whole text.
  std::string Finish() &&;

 private:
  [[nodiscard]] bool Append(PropertyList::Value value);
  [[nodiscard]] bool AppendDictionary(PropertyList::Value value);
  [[nodiscard]] bool AppendArray(PropertyList::Value value);
  [[nodiscard]] bool AppendReal(double value);
  [[nodiscard]] bool AppendText(std::string_view text);
  // Puts the bracket behind the last value, in the place of its comma.
  void Close(char bracket);

  std::string text_ = "{";
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_JSON_WRITER_H_
