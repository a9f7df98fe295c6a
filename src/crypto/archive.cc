// Extraction of archives.

#include "ZuHelper.h"
#include "support/execute_command.h"
#include "support/guarded.h"
#include "support/path.h"
#include "support/utf8.h"

uint8_t Decompress(const char* path) {
  if (path == nullptr || *path == '\0' || !zu::IsValidUtf8(path)) return 0;
  return zu::Guarded(__func__, uint8_t{0}, [path]() -> uint8_t {
    return zu::ExecuteCommand::RunsSilently(
               "/usr/bin/sudo", {"/usr/bin/tar", "-C",
                                 zu::WithoutLastComponent(path), "-jxf", path})
               ? 1
               : 0;
  });
}
