#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>
#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <span>
#include <thread>

#include "ZuHelper.h"
#include "platform/digest.h"
#include "support/file_descriptor.h"
#include "support/guarded.h"
#include "support/hex.h"
#include "support/signal_mask.h"

namespace zu::crypto {
namespace {

constexpr size_t kBufferSize = 64 * 1024;

// From here on a file is large: what a second thread costs shows no more.
constexpr size_t kLarge = 4 * kBufferSize;

// Two threads share the buffer in slots. The one that reads is the faster by
// far, so it sleeps most of the time. It is woken when this many slots are
// free: seldom, because that costs the other thread a system call, but while
// there is still more to digest than it takes to wake up.
constexpr size_t kSlots = 16;
constexpr size_t kSlotSize = kBufferSize / kSlots;
constexpr size_t kWorthWaking = 10;

struct alignas(64) Buffer {
  std::array<std::byte, kBufferSize> bytes;
};

// 0 at the end, and where nothing can be read.
size_t Read(int file, std::span<std::byte> room) {
  const ssize_t count =
      RetryOnInterrupt([&] { return ::read(file, room.data(), room.size()); });
  return count > 0 ? static_cast<size_t>(count) : 0;
}

void AddToMd5(ZuMD5Context& md5, std::span<const std::byte> data) {
  ::MD5Digest(&md5, data.data(), static_cast<uint32_t>(data.size()));
}

// The buffer between a thread that fills slots and one that takes them.
class Ring {
 public:
  // The first `size` bytes are there to be taken.
  Ring(std::span<std::byte, kBufferSize> buffer, size_t size)
      : buffer_(buffer) {
    for (; size > kSlotSize; size -= kSlotSize) AddSlot(kSlotSize);
    AddSlot(size);
  }

  // The next slot to fill, once it is free.
  std::span<std::byte> WaitForRoom() {
    std::unique_lock lock(mutex_);
    if (filled_ - taken_ == kSlots) {
      room_.wait(lock, [this] { return filled_ - taken_ <= kFewEnough; });
    }
    return Slot(filled_);
  }
  // It holds `size` bytes; 0 ends the message.
  void Fill(size_t size) {
    {
      const std::lock_guard lock(mutex_);
      AddSlot(size);
    }
    data_.notify_one();
  }

  // The next slot's bytes, once they are there; none at the end.
  std::span<const std::byte> WaitForData() {
    std::unique_lock lock(mutex_);
    data_.wait(lock, [this] { return filled_ != taken_; });
    return Slot(taken_).first(sizes_[taken_ % kSlots]);
  }
  // They may be overwritten.
  void Take() {
    bool wake = false;
    {
      const std::lock_guard lock(mutex_);
      ++taken_;
      wake = filled_ - taken_ == kFewEnough;
    }
    if (wake) room_.notify_one();
  }

 private:
  static constexpr size_t kFewEnough = kSlots - kWorthWaking;

  std::span<std::byte, kSlotSize> Slot(size_t number) {
    return std::span<std::byte, kSlotSize>(
        &buffer_[number % kSlots * kSlotSize], kSlotSize);
  }
  void AddSlot(size_t size) { sizes_[filled_++ % kSlots] = size; }

  const std::span<std::byte, kBufferSize> buffer_;
  std::mutex mutex_;
  std::condition_variable room_;
  std::condition_variable data_;
  std::array<size_t, kSlots> sizes_{};
  // Slots since the beginning.
  size_t filled_ = 0;
  size_t taken_ = 0;
};

// What the helper does: all of SHA-1, which is quick, and the reading.
struct HelperTask {
  int file;
  std::span<const std::byte> first;  // What the ring begins with.
  Ring& ring;
  platform::Sha1Stream& sha1;
};

void* ReadAndDigest(void* argument) {
  const HelperTask& task = *static_cast<HelperTask*>(argument);
  task.sha1.Update(task.first);
  for (;;) {
    const std::span<std::byte> room = task.ring.WaitForRoom();
    const size_t size = Read(task.file, room);
    task.ring.Fill(size);
    if (size == 0) return nullptr;
    // Only this thread overwrites the slot, so it may be taken meanwhile.
    task.sha1.Update(room.first(size));
  }
}

// Digests what is in the buffer already, `size` bytes, and the rest of the
// file. False, with nothing done, where a second thread is of no use or cannot
// be made.
bool DigestSideBySide(int file, Buffer& buffer, size_t size, ZuMD5Context& md5,
                      platform::Sha1Stream& sha1) {
  if (std::thread::hardware_concurrency() == 1) return false;
  Ring ring(buffer.bytes, size);
  HelperTask task{file, std::span(buffer.bytes).first(size), ring, sha1};
  pthread_t helper{};
  {
    // Signals are for the host's own threads.
    const SignalMask mask = SignalMask::AllBlocked();
    if (::pthread_create(&helper, nullptr, &ReadAndDigest, &task) != 0) {
      return false;
    }
  }
  for (auto data = ring.WaitForData(); !data.empty();
       data = ring.WaitForData()) {
    AddToMd5(md5, data);
    ring.Take();
  }
  ::pthread_join(helper, nullptr);
  return true;
}

void DigestFile(int file, Buffer& buffer, ZuMD5Context& md5,
                platform::Sha1Stream& sha1) {
  size_t total = 0;
  while (const size_t size = Read(file, buffer.bytes)) {
    total += size;
    if (total > kLarge && DigestSideBySide(file, buffer, size, md5, sha1)) {
      return;
    }
    const auto data = std::span(buffer.bytes).first(size);
    AddToMd5(md5, data);
    sha1.Update(data);
  }
}

bool HashFile(const char* path, char* md5_text, char* sha1_text) {
  const std::unique_ptr<Buffer> buffer(new (std::nothrow) Buffer);
  if (!buffer) return false;
  // A path may be anybody's: a terminal must not become the host's, which would
  // be hung up with it.
  const FileDescriptor file(RetryOnInterrupt(
      [path] { return ::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY); }));
  if (!file.valid()) return false;

  ZuMD5Context md5{};
  ::MD5Open(&md5);
  platform::Sha1Stream sha1;
  DigestFile(file.get(), *buffer, md5, sha1);

  std::array<uint8_t, ZU_MD5_OUTPUT_SIZE> md5_digest;
  ::MD5Close(&md5, md5_digest.data());
  std::array<std::byte, platform::kSha1Size> sha1_digest;
  if (!sha1.Finish(sha1_digest)) return false;
  WriteUpperHex(std::as_bytes(std::span(md5_digest).first(ZU_MD5_SIZE)),
                md5_text);
  WriteUpperHex(sha1_digest, sha1_text);
  return true;
}

}  // namespace
}  // namespace zu::crypto

uint8_t GetMd5AndSha1(const char* path, char* md5_text, char* sha1_text) {
  if (path == nullptr || md5_text == nullptr || sha1_text == nullptr) return 0;
  return zu::Guarded(__func__, uint8_t{0}, [=] {
    return uint8_t{zu::crypto::HashFile(path, md5_text, sha1_text)};
  });
}
