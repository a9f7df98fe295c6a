// Reading an open file that others may change or shorten meanwhile.
//
// By position and never through a mapping: a mapped file that shrinks kills
// the process that looks at it.
#ifndef ZU_SUPPORT_READ_AT_H_
#define ZU_SUPPORT_READ_AT_H_

#include <cstddef>
#include <cstdint>
#include <span>

namespace zu {

// Fills all of `destination` from the file's `offset` on. False when the file
// ends before that or cannot be read; errno is 0 when it ended.
[[nodiscard]] bool ReadAt(int descriptor, uint64_t offset,
                          std::span<std::byte> destination);

}  // namespace zu

#endif  // ZU_SUPPORT_READ_AT_H_
