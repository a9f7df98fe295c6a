// The agent's user interface, as it is installed on this machine.
#ifndef ZU_COMPONENTS_UI_APPLICATION_H_
#define ZU_COMPONENTS_UI_APPLICATION_H_

#include <optional>
#include <string>

namespace zu::components {

// The name of its executable; absent when there is none. May be any text: it is
// what the launch agent's property list has in that place. Blocks until a tool
// has ended.
std::optional<std::string> ReadUiName();

}  // namespace zu::components

#endif  // ZU_COMPONENTS_UI_APPLICATION_H_
