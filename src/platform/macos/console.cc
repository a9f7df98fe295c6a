#include "platform/console.h"

#include <SystemConfiguration/SystemConfiguration.h>

#include "platform/macos/cf_string.h"
#include "platform/macos/scoped_refs.h"

namespace zu::platform {

ConsoleResult ReadConsoleUser(std::string& user) {
  const ScopedCf<SCDynamicStoreRef> store(::SCDynamicStoreCreate(
      nullptr, CFSTR("com.apple.dts.ConsoleUser"), nullptr, nullptr));
  if (!store.valid()) return ConsoleResult::kUnreachable;
  const ScopedCf<CFStringRef> name(
      ::SCDynamicStoreCopyConsoleUser(store.get(), nullptr, nullptr));
  if (!name.valid()) return ConsoleResult::kNobody;
  user = ToUtf8(name.get());
  return ConsoleResult::kUser;
}

}  // namespace zu::platform
