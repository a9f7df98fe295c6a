// The built library, loaded at run time as managed hosts do.
#ifndef ZU_TESTS_SUPPORT_LOADED_LIBRARY_H_
#define ZU_TESTS_SUPPORT_LOADED_LIBRARY_H_

#include <dlfcn.h>

#include "ZuHelper.h"
#include "support/scoped_handle.h"

namespace zu::test {

struct LoadedLibraryTraits {
  using Value = void*;
  static constexpr Value kNone = nullptr;
  static void Close(Value library) noexcept { ::dlclose(library); }
};
using LoadedLibrary = ScopedHandle<LoadedLibraryTraits>;

inline LoadedLibrary LoadLibrary() {
  return LoadedLibrary(::dlopen(ZU_TEST_LIBRARY, RTLD_NOW | RTLD_LOCAL));
}

}  // namespace zu::test

// A pointer to an exported function or variable, typed as the header has it.
#define ZU_FIND(library, name) \
  reinterpret_cast<decltype(&name)>(::dlsym((library).get(), #name))

#endif  // ZU_TESTS_SUPPORT_LOADED_LIBRARY_H_
