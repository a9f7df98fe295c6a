// One request from text to reply text.
#ifndef ZU_SERVER_REQUEST_H_
#define ZU_SERVER_REQUEST_H_

#include <array>

#include "platform/ipc.h"
#include "platform/json.h"

namespace zu::server {

// Decodes requests and has the host's callbacks answer them. Keeps its buffer
// and parser from one request to the next; for one thread.
class RequestProcessor {
 public:
  // Sets the body of `reply`, which may be null. Calls the host.
  void ProcessXpcRequest(const platform::IpcMessage& message,
                         platform::IpcMessage* reply);

  // Lets go of the memory that large requests left behind.
  void Trim();
  bool HoldsMemory() const { return holds_memory_; }

 private:
  // Requests up to this size cause no allocation of ours.
  static constexpr size_t kFixedCapacity = 2048;

  // On a line of the cache: copies into other places are many times slower.
  alignas(64) std::array<char, kFixedCapacity + 1 + platform::kJsonTail> fixed_;
  platform::JsonReader json_;
  bool holds_memory_ = false;
};

}  // namespace zu::server

#endif  // ZU_SERVER_REQUEST_H_
