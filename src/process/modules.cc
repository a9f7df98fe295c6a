#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ZuHelper.h"
#include "platform/process_facts.h"
#include "platform/task_memory.h"
#include "process/path_list.h"
#include "support/guarded.h"

namespace zu::process {
namespace {

constexpr uint32_t kNeverMapsFirstProcessFrom = 10014000;
constexpr size_t kMaxPathRead = 65536;

// Up to the end of the page that holds the first of the `bytes`.
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

uint32_t ListLoadedImages(int32_t pid, PathList& list) {
  uint32_t task = 0;
  if (const int32_t status = platform::GetTask(pid, task); status != 0) {
    return static_cast<uint32_t>(status);
  }
  platform::TaskMemory memory(task);
  std::vector<uint64_t> addresses;
  if (const int32_t status = platform::ReadImagePaths(task, memory, addresses);
      status != 0) {
    return static_cast<uint32_t>(status);
  }
  std::span<const uint64_t> images(addresses);
  if (const auto path = platform::ReadExecutablePath(pid)) {
    list.Append("", *path, '\0');
    // The loader's first image is the main executable.
    if (!images.empty()) images = images.subspan(1);
  }
  std::string joined;
  for (const uint64_t address : images) {
    const auto path = ReadPath(memory, address, joined);
    if (path && !path->empty()) list.Append("", *path, '\0');
  }
  return ZU_PROCESS_OK;
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
    zu::process::PathList list(buffer, *size);
    const uint32_t status = zu::process::ListLoadedImages(pid, list);
    if (status == ZU_PROCESS_OK) *size = list.needed();
    return status;
  });
}
