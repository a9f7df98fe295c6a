// The built library, loaded at run time as managed hosts do.
#ifndef ZU_TESTS_SUPPORT_LOADED_LIBRARY_H_
#define ZU_TESTS_SUPPORT_LOADED_LIBRARY_H_

#include <dlfcn.h>
#include <memory>

#include "ZuHelper.h"

namespace zu::test {

using LoadedLibrary = std::unique_ptr<void, int (*)(void*)>;

inline LoadedLibrary LoadLibrary() {
  return {::dlopen(ZU_TEST_LIBRARY, RTLD_NOW | RTLD_LOCAL), &::dlclose};
}

}  // namespace zu::test

// A pointer to an exported function or variable, typed as the header has it.
#define ZU_FIND(library, name) \
  reinterpret_cast<decltype(&name)>(::dlsym((library).get(), #name))

#endif  // ZU_TESTS_SUPPORT_LOADED_LIBRARY_H_
