#include "server/gateway_share.h"

#include <dirent.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>

#include "ZuHelper.h"
#include "platform/notification.h"
#include "platform/property_list_json.h"
#include "server/command_table.h"
#include "support/guarded.h"
#include "support/log.h"
#include "support/scoped_handle.h"
#include "support/user_file.h"

namespace zu::server {
namespace {

constexpr char kUsers[] = "/Users";
constexpr char kContainer[] =
    "/Library/Group Containers/" ZU_PARENT_GROUP_ID "/Library/";
constexpr char kFile[] = "VenueId.dat";

constexpr size_t kPathCapacity = 1024;
constexpr uint32_t kTextCapacity = 2048;
constexpr int32_t kMaxTextLength = 2047;

// Names have at most 255 characters on both systems, which are 765 bytes.
static_assert(sizeof kUsers + 765 + sizeof kContainer + sizeof kFile <=
                  kPathCapacity,
              "ZU_PARENT_GROUP_ID is too long: paths would be cut");

struct DirectoryTraits {
  using Value = DIR*;
  static constexpr Value kNone = nullptr;
  static void Close(Value directory) noexcept { ::closedir(directory); }
};
using Directory = ScopedHandle<DirectoryTraits>;

// What the host has to share.
struct GatewayData {
  std::optional<std::string> property_list;  // Absent: nothing to be written.
};

// Asks the host. Absent, with the reason logged: nobody gets an answer.
std::optional<GatewayData> AskHost() {
  if (!uiCmdMap.Exists()) {
    LogError(
        "ZuHelperOSX.GatewaySerialNumberRequest No uiCmdMap for request %s\n",
        kGatewayRequest);
    return std::nullopt;
  }
  const std::optional<ZuCommandCallback> callback = uiCmdMap.Find("SERI");
  if (!callback) {
    LogError(
        "ZuHelperOSX.GatewaySerialNumberRequest No callback set for request "
        "%s\n",
        kGatewayRequest);
    return std::nullopt;
  }
  if (*callback == nullptr) return GatewayData{};
  // With room for the NUL that callbacks may put behind a full buffer.
  char text[kTextCapacity + 1] = {};
  uint32_t reported = 0;
  (*callback)(text, kTextCapacity, &reported);
  // Hosts report a failure of their own as a negative length: no text.
  const auto length = static_cast<int32_t>(reported);
  if (length > kMaxTextLength) {
    LogError(
        "ZuHelperOSX.GatewaySerialNumberRequest actual message length too big, "
        "%d\n",
        length);
    return std::nullopt;
  }
  if (length <= 0) return GatewayData{};
  return GatewayData{
      platform::PropertyListFromJson({text, static_cast<size_t>(length)})};
}

bool IsDirectory(const char* path) {
  struct stat status;
  return ::stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

// Writes the file in the container of one user. An older file stays as it is,
// owner and permissions too, when that fails: it may be a link to, or another
// name of, a file that the user must not get.
void Write(int users, std::string_view container,
           const std::string& property_list) {
  const auto directory = UserDirectory::Open(users, container);
  if (!directory) return;
  FileAttributes attributes =
      directory->Attributes().value_or(FileAttributes{});
  attributes.mode = 0600;
  static_cast<void>(directory->ReplaceFile(kFile, property_list, attributes));
}

// The line tells that this user's turn came, not that anything was written.
void Share(int users, const char* user, const GatewayData& data) {
  char path[kPathCapacity];
  std::snprintf(path, sizeof path, "%s/%s%s", kUsers, user, kContainer);
  if (!IsDirectory(path)) return;
  if (data.property_list) {
    // The same place as seen from the directory that is open, without the
    // slash at the end.
    std::string_view container(path + sizeof kUsers);
    container.remove_suffix(1);
    Write(users, container, *data.property_list);
  }
  LogError("ZuHelperOSX.GatewaySerialNumberRequest Saved data to file, %s%s\n",
           path, kFile);
}

// "Shared" and whatever begins so is nobody's home.
bool IsUser(std::string_view name) {
  return !name.starts_with('.') && !name.starts_with("Shared");
}

void ShareWithUsers(const GatewayData& data) {
  const Directory users(::opendir(kUsers));
  if (!users.valid()) {
    LogError(
        "ZuHelperOSX.GatewaySerialNumberRequest Error opening the Users "
        "directory, %d\n",
        errno);
    return;
  }
  while (const dirent* entry = ::readdir(users.get())) {
    if (!IsUser(entry->d_name)) continue;
    Share(::dirfd(users.get()), entry->d_name, data);
  }
}

}  // namespace

void GatewaySerialNumberRequest() {
  Guarded(__func__, [] {
    LogError(
        "ZuHelperOSX.GatewaySerialNumberRequest Received incoming request, "
        "%s\n",
        kGatewayRequest);
    const std::optional<GatewayData> data = AskHost();
    if (!data) return;
    ShareWithUsers(*data);
    platform::PostNotification(kGatewayResponse);
  });
}

}  // namespace zu::server
