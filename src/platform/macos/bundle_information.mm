// NSBundle and NSJSONSerialization. Compiled without automatic reference
// counting: everything here is autoreleased.

#include "platform/bundle_information.h"

#import <Foundation/Foundation.h>

namespace zu::platform {
namespace {

// nil when there is no bundle, or it has none.
NSDictionary* InformationDictionary(const std::string& path) {
  NSString* const text = [NSString stringWithUTF8String:path.c_str()];
  if (text == nil) return nil;
  return [[NSBundle bundleWithPath:text] infoDictionary];
}

}  // namespace

std::optional<std::string> BundleInformationJson(
    const std::string& path, std::span<const BundleMember> members) {
  @autoreleasepool {
    @try {
      NSDictionary* const dictionary = InformationDictionary(path);
      NSMutableDictionary* const object = [NSMutableDictionary dictionary];
      for (const BundleMember& member : members) {
        const id value = [dictionary
            objectForKey:[NSString stringWithUTF8String:member.key]];
        if (value == nil) continue;
        [object setObject:value
                   forKey:[NSString stringWithUTF8String:member.name]];
      }
      // Throws when it is given what JSON does not have.
      NSData* const json = [NSJSONSerialization dataWithJSONObject:object
                                                           options:0
                                                             error:nil];
      if (json == nil) return std::nullopt;
      return std::string(static_cast<const char*>([json bytes]), [json length]);
    } @catch (NSException*) {
      return std::nullopt;
    }
  }
}

std::optional<std::string> ReadBundleText(const std::string& path,
                                          const char* key) {
  @autoreleasepool {
    @try {
      const id value = [InformationDictionary(path)
          objectForKey:[NSString stringWithUTF8String:key]];
      if (![value isKindOfClass:[NSString class]]) return std::nullopt;
      const char* const text = [value UTF8String];
      if (text == nullptr) return std::nullopt;
      return std::string(text);
    } @catch (NSException*) {
      return std::nullopt;
    }
  }
}

}  // namespace zu::platform
