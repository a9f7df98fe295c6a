// The memory of another process, and the images that its loader knows.
#ifndef ZU_PLATFORM_TASK_MEMORY_H_
#define ZU_PLATFORM_TASK_MEMORY_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace zu::platform {

// The right to read a process's memory: 0, or the kernel's status.
[[nodiscard]] int32_t GetTask(int32_t pid, uint32_t& task);

// Reads a task's memory; what it hands out lives until the next call. For one
// thread.
class TaskMemory {
 public:
  explicit TaskMemory(uint32_t task);
  ~TaskMemory();
  TaskMemory(const TaskMemory&) = delete;
  TaskMemory& operator=(const TaskMemory&) = delete;

  struct Reading {
    int32_t status = 0;               // The kernel's.
    std::span<const std::byte> data;  // Empty when nothing came back.
  };
  // The `length` bytes at `address`; less or nothing when not all of them can
  // be read.
  Reading Read(uint64_t address, size_t length);

 private:
  struct State;
  const std::unique_ptr<State> state_;
};

// The unit in which memory is there or not, in bytes; a power of two.
size_t PageSize();

// No process has that many images; a list that goes on is not a list.
inline constexpr size_t kMaxImages = 65536;

// Where the path of each image lies in the task, in the loader's order: the
// main executable first. 0, or a status: the kernel's, or 5 when the task's
// memory does not hold a list. A task without a loader has no images.
[[nodiscard]] int32_t ReadImagePaths(uint32_t task, TaskMemory& memory,
                                     std::vector<uint64_t>& path_addresses);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_TASK_MEMORY_H_
