// The system's table of processes.
#ifndef ZU_PLATFORM_PROCESS_TABLE_H_
#define ZU_PLATFORM_PROCESS_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <span>

namespace zu::platform {

enum class TableResult { kRead, kUnreadable, kNoMemory };

// All records, ZU_PROCESS_RECORD_SIZE bytes each, in a block from malloc, and
// its size in bytes. A process that ends meanwhile is left out or still told.
[[nodiscard]] TableResult CopyProcessRecords(void*& records, size_t& size);

// The identifiers alone, in the same order, without reading more than that
// takes: as many as `ids` has room for, and in `total` how many there are.
[[nodiscard]] TableResult ListProcessIds(std::span<int32_t> ids, size_t& total);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_PROCESS_TABLE_H_
