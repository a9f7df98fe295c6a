#include "server/command_table.h"

#include "support/guarded.h"
#include "support/never_destroyed.h"

namespace zu::server {

// Never destroyed: the worker of a host that exits without stopping the server
// may still look a command up.
static NeverDestroyed<CommandTable> g_commands;
CommandTable& uiCmdMap = g_commands.value;

void CommandTable::Create() {
  const std::lock_guard lock(mutex_);
  if (!callbacks_) callbacks_.emplace();
}

void CommandTable::Set(const char* command, ZuCommandCallback callback) {
  const std::lock_guard lock(mutex_);
  if (!callbacks_) callbacks_.emplace();
  callbacks_->insert_or_assign(command, callback);
}

bool CommandTable::Release() {
  const std::lock_guard lock(mutex_);
  if (!callbacks_) return false;
  callbacks_.reset();
  return true;
}

bool CommandTable::Exists() const {
  const std::lock_guard lock(mutex_);
  return callbacks_.has_value();
}

std::optional<ZuCommandCallback> CommandTable::Find(
    const std::string& command) const {
  const std::lock_guard lock(mutex_);
  if (!callbacks_) return std::nullopt;
  const auto found = callbacks_->find(command);
  if (found == callbacks_->end()) return std::nullopt;
  return found->second;
}

}  // namespace zu::server

uint32_t SetServerCallbackForCommand(const char* command,
                                     ZuCommandCallback callback) {
  if (command == nullptr || callback == nullptr) return ZU_SERVER_REFUSED;
  return zu::Guarded(__func__, ZU_SERVER_REFUSED, [=] {
    zu::server::uiCmdMap.Set(command, callback);
    return 0u;
  });
}
