// Memory that the client's callers get, and the queue in which broadcasts wait.
#ifndef ZU_CLIENT_BLOCK_H_
#define ZU_CLIENT_BLOCK_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "ZuClient.h"
#include "support/allocated.h"

namespace zu::client {

// `size` bytes and a NUL behind them; no data when memory was short.
struct Block {
  Allocated<char> data;
  size_t size = 0;
};

inline Block MakeBlock(size_t size) noexcept {
  // The C library copies tens of KiB many times faster to the start of a cache
  // line than to where malloc would put them.
  constexpr size_t kCacheLine = 64;
  Block block;
  const size_t rounded = (size + kCacheLine) / kCacheLine * kCacheLine;
  block.data.reset(static_cast<char*>(std::aligned_alloc(kCacheLine, rounded)));
  if (block.data != nullptr) {
    block.size = size;
    block.data.get()[size] = '\0';
  }
  return block;
}

// Where the bytes that a caller waits for are put: into memory of the caller's,
// or into a block that is made for them.
class Sink {
 public:
  Sink() = default;
  Sink(void* buffer, size_t capacity) noexcept
      : buffer_(buffer), capacity_(capacity) {}

  ZuClientStatus Copy(const void* bytes, size_t size) noexcept {
    void* destination = buffer_;
    if (destination == nullptr) {
      block_ = MakeBlock(size);
      destination = block_.data.get();
      if (destination == nullptr) return ZU_CLIENT_OUT_OF_MEMORY;
    }
    size_ = size;
    if (buffer_ != nullptr && size > capacity_) {
      return ZU_CLIENT_BUFFER_TOO_SMALL;
    }
    if (size != 0) std::memcpy(destination, bytes, size);
    return ZU_CLIENT_OK;
  }

  // The same for bytes that lie in a block already. One without data stands
  // for memory that was short.
  ZuClientStatus Take(Block block) noexcept {
    if (block.data == nullptr) return ZU_CLIENT_OUT_OF_MEMORY;
    if (buffer_ != nullptr) return Copy(block.data.get(), block.size);
    size_ = block.size;
    block_ = std::move(block);
    return ZU_CLIENT_OK;
  }

  [[nodiscard]] size_t size() const noexcept { return size_; }
  [[nodiscard]] char* release() noexcept { return block_.data.release(); }

 private:
  void* buffer_ = nullptr;
  size_t capacity_ = 0;
  size_t size_ = 0;
  Block block_;
};

// Broadcasts that nobody has received yet, within the bounds that ZuClient.h
// states. For one thread at a time.
class BroadcastQueue {
 public:
  // A block without data counts as lost. Drops the oldest for a newer one.
  void Push(Block block) noexcept {
    if (block.data == nullptr) {
      ++lost_;
      return;
    }
    while (
        count_ == ring_.size() ||
        (count_ != 0 && bytes_ + block.size > ZU_CLIENT_BROADCAST_BYTES_MAX)) {
      Pop();
      ++lost_;
    }
    bytes_ += block.size;
    ring_[(first_ + count_++) % ring_.size()] = std::move(block);
  }

  // The oldest; must not be called when empty.
  Block Pop() noexcept {
    Block block = std::move(ring_[first_]);
    first_ = (first_ + 1) % ring_.size();
    --count_;
    bytes_ -= block.size;
    return block;
  }

  [[nodiscard]] bool empty() const noexcept { return count_ == 0; }
  [[nodiscard]] uint64_t lost() const noexcept { return lost_; }

 private:
  std::array<Block, ZU_CLIENT_BROADCASTS_MAX> ring_;
  size_t first_ = 0;
  size_t count_ = 0;
  size_t bytes_ = 0;
  uint64_t lost_ = 0;
};

}  // namespace zu::client

#endif  // ZU_CLIENT_BLOCK_H_
