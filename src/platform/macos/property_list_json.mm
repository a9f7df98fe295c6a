// NSPropertyListSerialization. Compiled without automatic reference counting:
// everything here is autoreleased.

#include "platform/property_list_json.h"

#import <Foundation/Foundation.h>

#include "platform/macos/json_document.h"

namespace zu::platform {

std::optional<std::string> PropertyListFromJson(std::string_view json) {
  @autoreleasepool {
    const id document = ParseDocument(json.data(), json.size());
    if (document == nil) return std::nullopt;
    @try {
      NSData* const list = [NSPropertyListSerialization
          dataWithPropertyList:document
                        format:NSPropertyListXMLFormat_v1_0
                       options:0
                         error:nil];
      if (list == nil) return std::nullopt;
      return std::string(static_cast<const char*>([list bytes]), [list length]);
    } @catch (NSException*) {
      return std::nullopt;
    }
  }
}

}  // namespace zu::platform
