// Which machine, system and product this is.

#include <fcntl.h>
#include <sys/utsname.h>
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "ZuHelper.h"
#include "platform/bundle_information.h"
#include "platform/host.h"
#include "platform/os_version.h"
#include "support/execute_command.h"
#include "support/file_descriptor.h"
#include "support/guarded.h"
#include "support/tool_number.h"

namespace zu::system {
namespace {

using platform::OsVersion;

constexpr char kVersionFile[] =
    "/System/Library/CoreServices/.SystemVersionPlatform.plist";
constexpr char kProduct[] =
    "/Library/Application Support/Zubrant/Desktop/ZubrantProduct.app";

struct StreamTraits {
  using Value = FILE*;
  static constexpr Value kNone = nullptr;
  static void Close(Value stream) noexcept {
    const int saved = errno;
    std::fclose(stream);
    errno = saved;
  }
};
using Stream = ScopedHandle<StreamTraits>;

Stream OpenToRead(const char* path) {
  FileDescriptor file(RetryOnInterrupt(
      [=] { return ::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY); }));
  Stream stream(::fdopen(file.get(), "r"));
  if (stream.valid()) static_cast<void>(file.release());
  return stream;
}

OsVersion Unpack(uint32_t packed) {
  return {packed / 1000000, packed / 1000 % 1000, packed % 1000};
}

// The file is read line by line, and not as the property list that it is: the
// value counts when it begins on the line behind its key. Of a version of two
// numbers, the third stays what it was.
void Correct(OsVersion& version) {
  const Stream file = OpenToRead(kVersionFile);
  if (!file.valid()) return;
  char line[2000];  // Longer ones come in pieces, which count as lines.
  const auto next = [&] {
    return std::fgets(line, sizeof line, file.get()) != nullptr;
  };
  do {
    if (!next()) return;
  } while (std::strstr(line, "ProductVersion") == nullptr);
  if (!next()) return;
  const char* const value = std::strstr(line, "<string>");
  if (value == nullptr) return;
  // What was read before the first difference stays.
  std::sscanf(value, "<string>%" SCNu32 ".%" SCNu32 ".%" SCNu32 "</string>",
              &version.major, &version.minor, &version.patch);
}

// Copies a text and its NUL when there is room for both. In bytes: counting
// characters would let the copy pass the buffer's end.
bool CopyWhole(std::string_view text, char* buffer, size_t capacity) {
  if (text.size() >= capacity) return false;
  *std::copy(text.begin(), text.end(), buffer) = '\0';
  return true;
}

bool CopyProductVersion(char* buffer, size_t capacity) {
  std::error_code error;
  if (!std::filesystem::is_directory(kProduct, error)) {
    ZuLogToSystem("GetProductVersion bundle not exist");
    return false;
  }
  const std::optional<std::string> version =
      platform::ReadBundleText(kProduct, "CFBundleShortVersionString");
  if (!version || version->empty() || !CopyWhole(*version, buffer, capacity)) {
    return false;
  }
  ZuLogToSystem(buffer);
  return true;
}

}  // namespace
}  // namespace zu::system

using namespace zu::system;

void GetOSVersion(uint32_t* major, uint32_t* minor, uint32_t* patch,
                  uint32_t* revision) {
  if (major == nullptr || minor == nullptr || patch == nullptr ||
      revision == nullptr) {
    return;
  }
  OsVersion version =
      gOSVersion != 0 ? Unpack(gOSVersion) : zu::platform::ReadOsVersion();
  // What newer systems tell programs that were made for older ones.
  if (version.major == 10 && version.minor >= 16) Correct(version);
  *major = version.major;
  *minor = version.minor;
  *patch = version.patch;
  *revision = static_cast<uint32_t>(GetOSRevision());
}

int32_t GetOSRevision(void) {
  return zu::Guarded(__func__, 0, [] {
    const std::optional<std::string> output =
        zu::ExecuteCommand::Run("/usr/sbin/sysctl", {"kern.osrevision"});
    return output ? static_cast<int32_t>(zu::ParseToolNumber(*output)) : 0;
  });
}

void GetSystemArchitecture(char* buffer, int32_t capacity) {
  if (buffer == nullptr || capacity < 4) return;
  const auto size = static_cast<size_t>(capacity);
  std::memset(buffer, 0, size);
  utsname name{};
  if (::uname(&name) < 0) return;
  // One that fills the buffer has no NUL; that is deliberate.
  std::memcpy(buffer, name.machine, std::min(size, std::strlen(name.machine)));
}

void GetPlatformProperty(const char* name, char* buffer, int32_t capacity) {
  if (name == nullptr || buffer == nullptr || capacity <= 0) return;
  *buffer = '\0';
  zu::Guarded(__func__, [=] {
    const std::optional<std::string> text =
        zu::platform::ReadPlatformProperty(name);
    if (text) CopyWhole(*text, buffer, static_cast<size_t>(capacity));
  });
}

uint32_t GetHostName(int32_t network, char* buffer, int32_t capacity) {
  if (buffer == nullptr || capacity <= 0) return 0;
  *buffer = '\0';
  return zu::Guarded(__func__, 0u, [=] {
    const std::optional<std::string> name =
        network != 0 ? zu::platform::ReadNetworkName()
                     : zu::platform::ReadLocalizedName();
    return name && CopyWhole(*name, buffer, static_cast<size_t>(capacity)) ? 1u
                                                                           : 0u;
  });
}

uint32_t GetProductVersion(char* buffer, int32_t capacity) {
  ZuLogToSystem("GetProductVersion in");
  if (buffer == nullptr || capacity == 0) {
    ZuLogToSystem("GetProductVersion invalid parameter");
    return 0;
  }
  return zu::Guarded(__func__, 0u, [=] {
    // Hosts may declare buffers beyond 2 GiB: the capacity has no sign.
    return CopyProductVersion(buffer, static_cast<uint32_t>(capacity)) ? 1u
                                                                       : 0u;
  });
}
