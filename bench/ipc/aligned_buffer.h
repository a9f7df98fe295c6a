// Memory that begins on a cache line.
#ifndef ZU_BENCH_IPC_ALIGNED_BUFFER_H_
#define ZU_BENCH_IPC_ALIGNED_BUFFER_H_

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace zu::bench {

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};
using AlignedBuffer = std::unique_ptr<char, FreeMemory>;

// Uninitialised; null when memory is short. Copies to and from places that are
// not aligned can be several times slower.
inline AlignedBuffer MakeAlignedBuffer(size_t size) {
  return AlignedBuffer(
      static_cast<char*>(std::aligned_alloc(64, (size + 63) / 64 * 64)));
}

}  // namespace zu::bench

#endif  // ZU_BENCH_IPC_ALIGNED_BUFFER_H_
