// The platform's property lists, made of JSON.
#ifndef ZU_PLATFORM_PROPERTY_LIST_JSON_H_
#define ZU_PLATFORM_PROPERTY_LIST_JSON_H_

#include <optional>
#include <string>
#include <string_view>

namespace zu::platform {

// The XML property list of what a JSON text says, as the platform's writer
// makes it: kinds kept apart, keys sorted. Absent when the text is not one JSON
// array or object, or holds what a property list cannot: null.
std::optional<std::string> PropertyListFromJson(std::string_view json);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_PROPERTY_LIST_JSON_H_
