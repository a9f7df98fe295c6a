// What kind of volume a path lies on.

#include <optional>
#include <string>
#include <string_view>

#include "ZuHelper.h"
#include "platform/volume.h"
#include "support/guarded.h"
#include "support/path.h"
#include "support/utf8.h"

int64_t IsVolumeCaseSensitive(const char* path) {
  if (path == nullptr) return -1;
  return zu::Guarded(__func__, int64_t{-1}, [path] {
    return zu::platform::ReadCaseSensitivity(path);
  });
}

uint8_t isParentPathLocal(const char* path) {
  // What cannot be found out counts as local.
  if (path == nullptr || !zu::IsValidUtf8(path)) return 1;
  const std::string_view text = path;
  if (text == "/") return 1;
  // Never, on purpose, whatever its volume is: it holds devices and no files.
  if (text == "/dev") return 0;
  return zu::Guarded(__func__, uint8_t{1}, [path]() -> uint8_t {
    std::optional<bool> local = zu::platform::IsLocalVolume(path);
    if (!local.value_or(false)) return local.has_value() ? 0 : 1;

    // A volume of this machine may be an image whose file is elsewhere.
    const std::optional<std::string> image = zu::platform::ReadImageFile(path);
    if (!image) return 1;
    local = zu::platform::IsLocalVolume(*image);
    // The file may be unlinked, or not be there for us; its folder is.
    if (!local) {
      local = zu::platform::IsLocalVolume(zu::WithoutLastComponent(*image));
    }
    return local.value_or(true) ? 1 : 0;
  });
}
