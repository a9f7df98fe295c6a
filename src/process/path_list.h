// A list of paths, one after another in a caller's buffer.
#ifndef ZU_PROCESS_PATH_LIST_H_
#define ZU_PROCESS_PATH_LIST_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>

namespace zu::process {

class PathList {
 public:
  PathList(char* buffer, uint32_t capacity)
      : buffer_(buffer), capacity_(capacity) {}

  // Adds the entry `head` + `path` + `end`. It is written when all of it fits,
  // and what the list needs grows either way; so once an entry did not fit,
  // none behind it does.
  void Append(std::string_view head, std::string_view path, char end) {
    const size_t size = head.size() + path.size() + 1;
    if (needed_ + size <= capacity_) {
      char* next = buffer_ + needed_;
      next = std::copy(head.begin(), head.end(), next);
      next = std::copy(path.begin(), path.end(), next);
      *next = end;
      written_ = static_cast<size_t>(needed_) + size;
    }
    needed_ += size;
  }

  // In every entry that was written.
  void Replace(char from, char to) {
    std::replace(buffer_, buffer_ + written_, from, to);
  }

  std::string_view written() const { return {buffer_, written_}; }
  bool complete() const { return needed_ == written_; }
  // Bytes that the whole list takes, or the most that 32 bits can tell.
  uint32_t needed() const {
    constexpr uint64_t kMost = std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(std::min(needed_, kMost));
  }

 private:
  char* const buffer_;
  const uint32_t capacity_;
  uint64_t needed_ = 0;
  size_t written_ = 0;
};

}  // namespace zu::process

#endif  // ZU_PROCESS_PATH_LIST_H_
