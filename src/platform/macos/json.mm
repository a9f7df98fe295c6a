// NSJSONSerialization. Compiled without automatic reference counting: what
// outlives a call is retained into a ScopedCf, the rest is autoreleased.

#include "platform/json.h"

#import <Foundation/Foundation.h>

#include "platform/macos/json_document.h"
#include "platform/macos/scoped_refs.h"

#if __has_feature(objc_arc)
#error "json.mm releases by hand"
#endif

namespace zu::platform {

// Arrays and objects are what the parser accepts without options.
id ParseDocument(const char* text, size_t size) {
  // The data object only reads, and is gone before the text is.
  NSData* const data = [NSData dataWithBytesNoCopy:const_cast<char*>(text)
                                            length:size
                                      freeWhenDone:NO];
  @try {
    return [NSJSONSerialization JSONObjectWithData:data options:0 error:nil];
  } @catch (NSException*) {
    return nil;
  }
}

struct JsonReader::State {
  ScopedCf<CFDictionaryRef> object;  // The text's, when that was its top.
};

JsonReader::JsonReader() : state_(std::make_unique<State>()) {}
JsonReader::~JsonReader() = default;

bool JsonReader::Parse(const char* text, size_t size, size_t /*readable*/) {
  Trim();
  @autoreleasepool {
    const id document = ParseDocument(text, size);
    if ([document isKindOfClass:[NSDictionary class]]) {
      state_->object.reset((CFDictionaryRef)[document retain]);
    }
    return document != nil;
  }
}

std::optional<std::string> JsonReader::StringMember(
    std::string_view name) const {
  if (!state_->object.valid()) return std::nullopt;
  @autoreleasepool {
    NSString* const key =
        [[[NSString alloc] initWithBytes:name.data()
                                  length:name.size()
                                encoding:NSUTF8StringEncoding] autorelease];
    if (key == nil) return std::nullopt;
    const id value = [(NSDictionary*)state_->object.get() objectForKey:key];
    if (![value isKindOfClass:[NSString class]]) return std::nullopt;
    // By length, so that a NUL inside is kept; nil for a surrogate without its
    // partner, which UTF-8 cannot say.
    NSData* const utf8 = [value dataUsingEncoding:NSUTF8StringEncoding];
    if (utf8 == nil) return std::nullopt;
    return std::string(static_cast<const char*>([utf8 bytes]), [utf8 length]);
  }
}

void JsonReader::Trim() { state_->object.reset(); }

}  // namespace zu::platform
