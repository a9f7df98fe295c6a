// What the system's memory-map tool prints about a process.
#ifndef ZU_PROCESS_MEMORY_MAP_TOOL_H_
#define ZU_PROCESS_MEMORY_MAP_TOOL_H_

#include <string_view>

#include "process/path_list.h"

namespace zu::process {

// Whether a line, given without its end, tells of an executable image: whether
// it matches ^((__TEXT.+)|(mapped file).+] +r-x/.+)$ in any case. Takes time in
// proportion to its length.
[[nodiscard]] bool IsExecutableMapping(std::string_view line);

// Lists the paths on those lines of the tool's UTF-8 text that tell of an
// executable image, each with a NUL, or a newline when the list was cut.
void ListExecutableMappings(std::string_view text, PathList& list);

}  // namespace zu::process

#endif  // ZU_PROCESS_MEMORY_MAP_TOOL_H_
