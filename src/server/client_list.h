// The admitted clients.
#ifndef ZU_SERVER_CLIENT_LIST_H_
#define ZU_SERVER_CLIENT_LIST_H_

#include <mutex>
#include <unordered_set>

#include "platform/ipc.h"

namespace zu::server {

// Admissions, disconnects, broadcasts and the stop meet here, each under the
// list's own monitor lock.
class ClientList {
 public:
  // Makes the list if there is none.
  void Create();
  // Forgets the clients and the list; their connections stay open. False when
  // there was none. `released` is called first, under the lock.
  template <typename Released>
  bool Release(Released released) {
    const std::lock_guard lock(monitor_);
    if (!exists_) return false;
    released();
    exists_ = false;
    connections_.clear();
    return true;
  }

  // Runs `resume` and then, when the list exists and lacks the connection,
  // `added` before adding it. All of it is one step to the other callers: a
  // client that goes away at once is found by the call that removes it.
  template <typename Resume, typename Added>
  void ResumeAndAdd(const platform::IpcConnectionRef& connection, Resume resume,
                    Added added) {
    const std::lock_guard lock(monitor_);
    resume();
    if (!exists_ || connections_.contains(connection)) return;
    added();
    connections_.insert(connection);
  }

  // Calls `found` and removes the connection, when the list has it.
  template <typename Found>
  void Remove(const platform::IpcConnectionRef& connection, Found found) {
    const std::lock_guard lock(monitor_);
    if (!connections_.contains(connection)) return;
    found();
    connections_.erase(connection);
  }

  template <typename Visit>
  void ForEach(Visit visit) {
    const std::lock_guard lock(monitor_);
    for (const auto& connection : connections_) visit(*connection);
  }

 private:
  std::mutex monitor_;
  bool exists_ = false;
  std::unordered_set<platform::IpcConnectionRef> connections_;
};

extern ClientList& gClientConnections;

}  // namespace zu::server

#endif  // ZU_SERVER_CLIENT_LIST_H_
