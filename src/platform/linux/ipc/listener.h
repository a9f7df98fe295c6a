// The service's socket.
#ifndef ZU_PLATFORM_LINUX_IPC_LISTENER_H_
#define ZU_PLATFORM_LINUX_IPC_LISTENER_H_

#include <pthread.h>
#include <optional>
#include <string>

#include "platform/ipc.h"
#include "platform/linux/event.h"
#include "support/file_descriptor.h"

namespace zu::platform {

struct IpcListener {
 public:
  explicit IpcListener(const char* service) : service_(service) {}
  ~IpcListener() { Cancel(); }
  IpcListener(const IpcListener&) = delete;
  IpcListener& operator=(const IpcListener&) = delete;

  void SetHandler(IpcListenerHandler handler) { handler_ = std::move(handler); }
  void Resume();
  void Cancel();

 private:
  bool Open();
  void Run();
  void Accept();

  const std::string service_;
  IpcListenerHandler handler_;
  Event stop_;
  FileDescriptor directory_;
  FileDescriptor lock_;  // Held as long as the socket is ours.
  FileDescriptor socket_;
  std::optional<pthread_t> thread_;
  bool short_of_descriptors_ = false;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_IPC_LISTENER_H_
