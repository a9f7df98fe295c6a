// The volumes that paths lie on.
#ifndef ZU_PLATFORM_VOLUME_H_
#define ZU_PLATFORM_VOLUME_H_

#include <cstdint>
#include <optional>
#include <string>

namespace zu::platform {

// 1, 0, or -1 with errno when that cannot be told.
int64_t ReadCaseSensitivity(const char* path);

// Whether the path's volume belongs to this machine, as the volume itself has
// it: a mounted image does. Absent when there is no such path.
std::optional<bool> IsLocalVolume(const std::string& path);

// The file that holds the image which the path's volume is mounted from; absent
// when it is none or cannot be found.
std::optional<std::string> ReadImageFile(const std::string& path);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_VOLUME_H_
