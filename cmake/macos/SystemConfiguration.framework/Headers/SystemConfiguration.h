// What the library calls of a framework that the usual collection of headers
// and stubs for cross-building does not have. An SDK's own header comes first.
#ifndef ZU_CMAKE_MACOS_SYSTEM_CONFIGURATION_H_
#define ZU_CMAKE_MACOS_SYSTEM_CONFIGURATION_H_

#include <CoreFoundation/CoreFoundation.h>
#include <sys/types.h>

CF_EXTERN_C_BEGIN

typedef const struct __SCDynamicStore* SCDynamicStoreRef;
typedef struct SCDynamicStoreContext SCDynamicStoreContext;
typedef void (*SCDynamicStoreCallBack)(SCDynamicStoreRef store,
                                       CFArrayRef changed_keys, void* context);

SCDynamicStoreRef SCDynamicStoreCreate(CFAllocatorRef allocator,
                                       CFStringRef name,
                                       SCDynamicStoreCallBack changed,
                                       SCDynamicStoreContext* context);
CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef store, uid_t* uid,
                                          gid_t* gid);

CF_EXTERN_C_END

#endif  // ZU_CMAKE_MACOS_SYSTEM_CONFIGURATION_H_
