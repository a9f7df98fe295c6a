// JSON texts as both readers of this system take them.
#ifndef ZU_PLATFORM_MACOS_JSON_DOCUMENT_H_
#define ZU_PLATFORM_MACOS_JSON_DOCUMENT_H_

#import <Foundation/Foundation.h>

#include <cstddef>

namespace zu::platform {

// The array or object, autoreleased, that all of the text is; nil when it is
// neither.
id ParseDocument(const char* text, size_t size);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_MACOS_JSON_DOCUMENT_H_
