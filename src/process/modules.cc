#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "ZuHelper.h"
#include "platform/process_facts.h"
#include "platform/task_memory.h"
#include "support/guarded.h"

namespace zu::process {
namespace {

constexpr uint32_t kNeverMapsFirstProcessFrom = 10014000;
constexpr size_t kMaxPathRead = 65536;

// A loader is at work for some tens of microseconds at a time, unless it has to
// wait for a file.
constexpr int kMaxReadings = 16;
constexpr std::chrono::microseconds kPause(400);

// Up to the end of the page that `address` lies in.
size_t RestOfPage(uint64_t address) {
  return platform::PageSize() -
         static_cast<size_t>(address & (platform::PageSize() - 1));
}

// The text at `address` up to its NUL, page by page as far as a path may reach.
// Absent when it cannot be read or has no end. What is returned lies in the
// memory's last reading or, if longer, in `joined`.
std::optional<std::string_view> ReadPath(platform::TaskMemory& memory,
                                         uint64_t address,
                                         std::string& joined) {
  joined.clear();
  for (size_t length = 1; length < kMaxPathRead;
       length += platform::PageSize()) {
    const size_t wanted = RestOfPage(address);
    const auto [status, data] = memory.Read(address, wanted);
    if (status != 0 || data.size() < wanted) return std::nullopt;
    const std::string_view page(reinterpret_cast<const char*>(data.data()),
                                wanted);
    const size_t end = page.find('\0');
    if (end != page.npos && joined.empty()) return page.substr(0, end);
    joined.append(page.substr(0, end));
    if (end != page.npos) return joined;
    address += wanted;
  }
  return std::nullopt;
}

// What one reading of the loader's list gives.
struct Reading {
  uint32_t status = ZU_PROCESS_OK;
  bool changing = false;
  std::vector<platform::ImageRecord> images = {};
  std::string paths = {};  // Those that fit, each with its NUL.
  uint64_t needed = 0;
  bool operator==(const Reading&) const = default;
};

Reading ReadImages(platform::TaskMemory& memory,
                   const std::optional<std::string>& executable,
                   uint32_t capacity) {
  Reading reading;
  platform::ImageList list = memory.ReadImageList();
  reading.status = static_cast<uint32_t>(list.status);
  reading.changing = list.changing;
  if (reading.status != ZU_PROCESS_OK) return reading;
  const auto add = [&](std::string_view path) {
    reading.needed += path.size() + 1;
    if (reading.needed <= capacity) reading.paths.append(path).push_back('\0');
  };
  reading.images = std::move(list.images);
  std::span<const platform::ImageRecord> images(reading.images);
  if (executable) {
    add(*executable);
    // The loader's first image is the main executable.
    if (!images.empty()) images = images.subspan(1);
  }
  std::string joined;
  for (const platform::ImageRecord& image : images) {
    const auto path = ReadPath(memory, image.path, joined);
    if (path && !path->empty()) add(*path);
  }
  return reading;
}

// Nothing holds the process while it is read, and its loader may change the
// list and reuse the memory: only what two readings in a row agree on, down to
// the records, was the list in between. (What memory holds that is free may be
// the same text twice.) Until then the caller's buffer is left alone.
uint32_t ListLoadedImages(int32_t pid, char* buffer, uint32_t& size) {
  uint32_t task = 0;
  if (const int32_t status = platform::GetTask(pid, task); status != 0) {
    return static_cast<uint32_t>(status);
  }
  platform::TaskMemory memory(task);
  const auto executable = platform::ReadExecutablePath(pid);
  Reading last{.changing = true};
  for (int i = 0; i < kMaxReadings; ++i) {
    memory.ReadAgain();
    Reading reading = ReadImages(memory, executable, size);
    if (!reading.changing) {
      if (reading.status != ZU_PROCESS_OK) return reading.status;
      if (reading == last) {
        std::ranges::copy(reading.paths, buffer);
        constexpr uint64_t kMost = std::numeric_limits<uint32_t>::max();
        size = static_cast<uint32_t>(std::min(reading.needed, kMost));
        return ZU_PROCESS_OK;
      }
    } else {
      std::this_thread::sleep_for(kPause);
    }
    last = std::move(reading);
  }
  return ZU_PROCESS_NO_DATA;
}

}  // namespace
}  // namespace zu::process

uint32_t GetProcessModules(int32_t pid, char* buffer, uint32_t* size) {
  if (pid == 0 || buffer == nullptr || size == nullptr || *size == 0) {
    return ZU_PROCESS_BAD_ARGUMENT;
  }
  const uint32_t status = GetProcessModules_Old(pid, buffer, size);
  if (status == ZU_PROCESS_OK) return status;
  if (pid < 2 && gOSVersion >= zu::process::kNeverMapsFirstProcessFrom) {
    return status;
  }
  return GetProcessModulesImpl(pid, buffer, size);
}

uint32_t GetProcessModules_Old(int32_t pid, char* buffer, uint32_t* size) {
  return zu::Guarded(__func__, ZU_PROCESS_NO_DATA, [=] {
    return zu::process::ListLoadedImages(pid, buffer, *size);
  });
}
