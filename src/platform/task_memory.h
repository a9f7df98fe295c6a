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

// No process has that many images; a list that goes on is not a list.
inline constexpr size_t kMaxImages = 65536;

// What the loader keeps of an image.
struct ImageRecord {
  uint64_t address;
  uint64_t path;  // Where the image's path lies.
  bool operator==(const ImageRecord&) const = default;
};

struct ImageList {
  // 0, or why there is no list: the kernel's status, or 5 when the task's
  // memory does not hold one.
  int32_t status = 0;
  // The loader was at work on it, or seems to have been: there is none now, but
  // there may be in a moment.
  bool changing = false;
  // In the loader's order: the main executable first.
  std::vector<ImageRecord> images = {};
};

// Reads a task's memory; what it hands out of it lives until the next call. For
// one thread.
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
  // be read, also because somebody else than the kernel would have to provide
  // them first. They may have been read for an earlier call.
  Reading Read(uint64_t address, size_t length);
  // What is read from now on is the task's memory of now or later.
  void ReadAgain();

  // A task without a loader has no images. The task runs on: what lies at the
  // addresses, and they themselves, can only be relied on when a later reading
  // gives the same records.
  ImageList ReadImageList();

 private:
  struct State;
  const std::unique_ptr<State> state_;
};

// The unit in which memory is there or not, in bytes; a power of two.
size_t PageSize();

}  // namespace zu::platform

#endif  // ZU_PLATFORM_TASK_MEMORY_H_
