// What the kernel restricts, and its logging of shared regions.

#include "system/kernel_settings.h"

#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ZuHelper.h"
#include "platform/kernel_setting.h"
#include "support/execute_command.h"
#include "support/guarded.h"
#include "support/text_lines.h"

namespace {

constexpr char kUnnestLogging[] = "vm.shared_region_unnest_logging";

struct Restriction {
  std::string_view label;
  uint32_t flag;
};
constexpr Restriction kRestrictions[] = {
    {"Kext Signing", ZU_ROOTLESS_KEXT_SIGNING},
    {"Filesystem Protections", ZU_ROOTLESS_FILESYSTEM},
    {"Debugging Restrictions", ZU_ROOTLESS_DEBUGGING},
    {"Apple Internal", ZU_ROOTLESS_APPLE_INTERNAL},
    {"DTrace Restrictions", ZU_ROOTLESS_DTRACE},
    {"NVRAM Protections", ZU_ROOTLESS_NVRAM},
};
constexpr uint32_t kAllLabels =
    ZU_ROOTLESS_KEXT_SIGNING | ZU_ROOTLESS_FILESYSTEM | ZU_ROOTLESS_DEBUGGING |
    ZU_ROOTLESS_APPLE_INTERNAL | ZU_ROOTLESS_DTRACE | ZU_ROOTLESS_NVRAM;

uint32_t ParseRootlessConfig(std::string_view text) {
  uint32_t flags = 0;
  while (!text.empty()) {
    const std::string_view line = zu::TakeLine(text);
    if (line.find("disabled") == line.npos) continue;
    for (const Restriction& restriction : kRestrictions) {
      if (line.find(restriction.label) != line.npos) flags |= restriction.flag;
    }
  }
  // With all others this one is off as well, but no line tells.
  return flags == kAllLabels ? flags | ZU_ROOTLESS_TASK_FOR_PID : flags;
}

// Of the moment when the library was loaded; 0 when it could not be read.
uint32_t g_kept_unnest_logging = 0;
// The process that changed it for its host; 0: none has. What that forks has
// the number too, but does not put the value back.
std::atomic<pid_t> g_changer{0};

}  // namespace

int32_t GetRootlessConfig(uint32_t* flags) {
  return zu::Guarded(__func__, int32_t{EFAULT}, [flags] {
    const std::optional<std::string> output =
        zu::ExecuteCommand::Run("/usr/bin/csrutil", {"status"});
    if (!output || output->empty()) return EIO;
    *flags = ParseRootlessConfig(*output);
    return 0;
  });
}

int32_t GetSharedRegionUnnestLogging(uint32_t* value) {
  if (value == nullptr) return EINVAL;
  return zu::Guarded(__func__, int32_t{-1}, [value] {
    return zu::platform::ReadKernelSetting(kUnnestLogging, *value);
  });
}

int32_t SetSharedRegionUnnestLogging(uint32_t value) {
  return zu::Guarded(__func__, int32_t{-1}, [value] {
    return zu::platform::WriteKernelSetting(kUnnestLogging, value);
  });
}

namespace zu::system {

void KeepUnnestLogging() {
  GetSharedRegionUnnestLogging(&g_kept_unnest_logging);
}

void NoteUnnestLoggingChange() { g_changer = ::getpid(); }

void RestoreUnnestLogging() {
  if (g_changer == ::getpid()) {
    SetSharedRegionUnnestLogging(g_kept_unnest_logging);
  }
}

}  // namespace zu::system
