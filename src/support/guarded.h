// The border that no exception crosses.
#ifndef ZU_SUPPORT_GUARDED_H_
#define ZU_SUPPORT_GUARDED_H_

#include <pthread.h>
#include <exception>

#include "support/log.h"

namespace zu {

// A thread that is cancelled unwinds its stack, through code that must not be
// left half way, and the end of that must not be caught. It has to wait.
class CancellationBlock {
 public:
  CancellationBlock() {
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_);
  }
  CancellationBlock(const CancellationBlock&) = delete;
  CancellationBlock& operator=(const CancellationBlock&) = delete;
  ~CancellationBlock() { ::pthread_setcancelstate(before_, nullptr); }

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

// Runs `body` and returns its result, or `failure` when it throws. Every
// exported function that calls anything that may throw does so in here; out of
// memory is what is left to throw.
template <typename Result, typename Body>
Result Guarded(const char* name, Result failure, Body&& body) noexcept {
  const CancellationBlock block;
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
