// Memory from the C library's heap.
#ifndef ZU_SUPPORT_ALLOCATED_H_
#define ZU_SUPPORT_ALLOCATED_H_

#include <cstdlib>
#include <memory>

namespace zu {

struct Free {
  void operator()(void* memory) const noexcept { std::free(memory); }
};

// What malloc or a function that calls it gave, until free().
template <typename T>
using Allocated = std::unique_ptr<T, Free>;

}  // namespace zu

#endif  // ZU_SUPPORT_ALLOCATED_H_
