// JSON texts as both readers of this system take them.
#ifndef ZU_PLATFORM_LINUX_JSON_DOCUMENT_H_
#define ZU_PLATFORM_LINUX_JSON_DOCUMENT_H_

#include <simdjson.h>
#include <cstddef>
#include <optional>

namespace zu::platform {

// The array or object that all of the text is, with the rules and arguments of
// JsonReader::Parse. It lives in `parser`, until that reads another text.
std::optional<simdjson::dom::element> ParseDocument(
    simdjson::dom::parser& parser, const char* text, size_t size,
    size_t readable);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_JSON_DOCUMENT_H_
