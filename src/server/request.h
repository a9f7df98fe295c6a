// One request from text to reply text.
#ifndef ZU_SERVER_REQUEST_H_
#define ZU_SERVER_REQUEST_H_

#include <array>
#include <cstdlib>
#include <memory>

#include "platform/ipc.h"
#include "platform/json.h"
#include "support/allocated.h"

namespace zu::server {

// A text buffer on the heap, with room behind `capacity` bytes of text for the
// NUL at that index and for what the parser reads beyond.
struct HeapBuffer {
  Allocated<char> memory;
  size_t capacity = 0;
};

// Decodes requests and has the host's callbacks answer them. Keeps its buffer
// and parser from one request to the next; for one thread.
class RequestProcessor {
 public:
  // Sets the body of `reply`, which may be null. Calls the host.
  void ProcessXpcRequest(const platform::IpcMessage& message,
                         platform::IpcMessage* reply);

  // Lets go of the memory that large requests left behind.
  void Trim();
  bool HoldsMemory() const { return heap_.memory != nullptr; }

 private:
  // Requests up to this size cause no allocation of ours.
  static constexpr size_t kFixedCapacity = 2048;

  // On a line of the cache: copies into other places are many times slower.
  alignas(64) std::array<char, kFixedCapacity + 1 + platform::kJsonTail> fixed_;
  // The last large request's, for the next one: fresh memory of that size costs
  // more than the copy into it.
  HeapBuffer heap_;
  platform::JsonReader json_;
};

}  // namespace zu::server

#endif  // ZU_SERVER_REQUEST_H_
