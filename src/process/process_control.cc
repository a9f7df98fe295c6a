// Single processes and their users.

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "ZuHelper.h"
#include "platform/login_records.h"
#include "platform/process_facts.h"
#include "platform/task_memory.h"
#include "support/guarded.h"
#include "support/utf8.h"

namespace zu::process {
namespace {

// Stores each name once, with its NUL, in a buffer of zeros.
void StoreActiveUsers(const std::vector<platform::LoginRecord>& records,
                      char* buffer, size_t capacity) {
  std::vector<std::string_view> stored;
  size_t offset = 0;
  for (const auto& [user, dead] : records) {
    if (user.empty() || dead) continue;
    if (std::find(stored.begin(), stored.end(), user) != stored.end()) continue;
    // One that is turned away ends the list: hosts provide room for all.
    if (capacity - offset <= user.size()) return;
    user.copy(buffer + offset, user.size());
    stored.emplace_back(buffer + offset, user.size());
    offset += user.size() + 1;
  }
}

bool IsContinuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// Copies whole characters and a NUL into `capacity` bytes, at least one.
void CopyCharacters(std::string_view text, char* buffer, uint64_t capacity) {
  size_t size = text.size();
  if (capacity <= size) {
    size = capacity - 1;
    while (size > 0 && IsContinuation(text[size])) --size;
  }
  std::memcpy(buffer, text.data(), size);
  buffer[size] = '\0';
}

}  // namespace
}  // namespace zu::process

extern "C" {

uint32_t GetActiveUsers(char* buffer, const int32_t* size) {
  if (buffer == nullptr || size == nullptr || *size < 1) return 0;
  const size_t capacity = static_cast<size_t>(*size);
  std::memset(buffer, 0, capacity);
  zu::Guarded(__func__, [=] {
    zu::process::StoreActiveUsers(zu::platform::ReadLoginRecords(), buffer,
                                  capacity);
  });
  return 0;
}

uint32_t IsProcess64bits(int32_t pid) {
  return zu::Guarded(__func__, 1u, [=] {
    const uint32_t type =
        zu::platform::ReadCpuType(pid).value_or(zu::platform::kCpuTypeX86_64);
    return uint32_t{type == zu::platform::kCpuTypeArm64 ||
                    type == zu::platform::kCpuTypeX86_64};
  });
}

int32_t GetMachTask(int32_t pid, uint32_t* task) {
  return zu::platform::GetTask(pid, *task);
}

uint32_t IsProcessRunning(int32_t pid) {
  if (::kill(pid, 0) == 0) return 1;
  errno = ESRCH;
  return 0;
}

uint32_t GetProcessFullPath(int32_t pid, char* buffer, uint32_t* size) {
  if (pid == 0 || buffer == nullptr || size == nullptr || *size == 0) {
    return ZU_PROCESS_BAD_ARGUMENT;
  }
  return zu::Guarded(__func__, ZU_PROCESS_NO_PATH, [=] {
    const std::optional<std::string> path =
        zu::platform::ReadExecutablePath(pid);
    if (!path) return ZU_PROCESS_NO_PATH;
    if (path->size() < *size) {
      std::memcpy(buffer, path->c_str(), path->size() + 1);
    }
    *size = static_cast<uint32_t>(path->size());
    return ZU_PROCESS_OK;
  });
}

int32_t KillProcess(int32_t pid) {
  const pid_t group = ::getpgid(pid);
  if (group == -1) return -1;
  // To signal group 1 means everybody, and 0 (the kernel's answer for a group
  // of an outer container) means our own: neither is the process's group.
  if (group <= 1) {
    errno = ESRCH;
    return -1;
  }
  return ::killpg(group, SIGTERM);
}

uint32_t GetCurrentProcessName(char* buffer, uint64_t* size) {
  return zu::Guarded(__func__, 0u, [=] {
    const std::optional<std::string> name = zu::platform::ReadProcessName();
    if (!name) return 0u;
    // The test is in code units and the copy in bytes, so it may have to be
    // cut.
    const size_t units = zu::CountUtf16Units(*name);
    if (units < *size) zu::process::CopyCharacters(*name, buffer, *size);
    *size = units;
    return 1u;
  });
}

}  // extern "C"
