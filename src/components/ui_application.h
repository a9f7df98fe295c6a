// The agent's user interface, as it is installed on this machine.
#ifndef ZU_COMPONENTS_UI_APPLICATION_H_
#define ZU_COMPONENTS_UI_APPLICATION_H_

#include <cstdint>
#include <optional>
#include <string>

namespace zu::components {

// The name of its executable; absent when there is none. May be any text: it is
// what the launch agent's property list has in that place. Blocks until a tool
// has ended.
std::optional<std::string> ReadUiName();

// Which edition has an executable of that name: 1 to 3, the installation types,
// or 0 when none has.
uint32_t FindEdition(const std::optional<std::string>& name);

}  // namespace zu::components

#endif  // ZU_COMPONENTS_UI_APPLICATION_H_
