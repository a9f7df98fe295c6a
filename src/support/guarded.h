// The border that no exception crosses.
#ifndef ZU_SUPPORT_GUARDED_H_
#define ZU_SUPPORT_GUARDED_H_

#include <exception>

#include "support/log.h"

namespace zu {

// Runs `body` and returns its result, or `failure` when it throws. Every
// exported function that calls anything that may throw does so in here; out of
// memory is what is left to throw.
template <typename Result, typename Body>
Result Guarded(const char* name, Result failure, Body&& body) noexcept {
  try {
    return body();
  } catch (const std::exception& error) {
    LogError("ZuHelperOSX.%s: exception caught (%s)", name, error.what());
  } catch (...) {
    LogError("ZuHelperOSX.%s: exception caught", name);
  }
  return failure;
}

template <typename Body>
void Guarded(const char* name, Body&& body) noexcept {
  Guarded(name, 0, [&body] {
    body();
    return 0;
  });
}

}  // namespace zu

#endif  // ZU_SUPPORT_GUARDED_H_
