// The host's callbacks by command name.
#ifndef ZU_SERVER_COMMAND_TABLE_H_
#define ZU_SERVER_COMMAND_TABLE_H_

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "ZuHelper.h"

namespace zu::server {

// May be used from any thread: hosts register commands while the server runs.
class CommandTable {
 public:
  // Makes the table if there is none.
  void Create();
  // Creates the table too. A command that has a callback gets the new one.
  void Set(const char* command, ZuCommandCallback callback);
  // Forgets every command and the table. False when there was none.
  bool Release();
  bool Exists() const;
  // Absent: no such command. Null: its registered address is null.
  std::optional<ZuCommandCallback> Find(const std::string& command) const;

 private:
  mutable std::mutex mutex_;
  std::optional<std::unordered_map<std::string, ZuCommandCallback>> callbacks_;
};

extern CommandTable& uiCmdMap;

}  // namespace zu::server

#endif  // ZU_SERVER_COMMAND_TABLE_H_
