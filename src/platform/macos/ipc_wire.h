// What goes over the server's XPC connections on macOS: dictionaries, either
// way, in which only this entry counts. Its value is an XPC data object.
#ifndef ZU_PLATFORM_MACOS_IPC_WIRE_H_
#define ZU_PLATFORM_MACOS_IPC_WIRE_H_

namespace zu::platform {

inline constexpr char kDataKey[] = "<DATA>";

}  // namespace zu::platform

#endif  // ZU_PLATFORM_MACOS_IPC_WIRE_H_
