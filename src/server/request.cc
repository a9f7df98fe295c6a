#include "server/request.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "server/command_table.h"
#include "support/log.h"

namespace zu::server {
namespace {

constexpr size_t kMaxRequestSize = ZU_MESSAGE_MAX;
// One byte of a reply buffer of the greatest size is its terminator.
constexpr uint32_t kMaxReplyLength = ZU_MESSAGE_MAX - 1;
constexpr std::string_view kErrorReply = "{\"RESP\":-2}";

// False, with the buffer as it was, when memory is short.
bool Allocate(HeapBuffer& buffer, size_t capacity) {
  constexpr size_t kLine = 64;
  const size_t size = capacity + 1 + platform::kJsonTail;
  char* const memory = static_cast<char*>(
      std::aligned_alloc(kLine, (size + kLine - 1) / kLine * kLine));
  if (memory == nullptr) return false;
  buffer.memory.reset(memory);
  buffer.capacity = capacity;
  return true;
}

// The text under work: in the fixed buffer or in one on the heap.
struct Work {
  char* text;
  uint32_t capacity;
  uint32_t length;
};

void SetError(platform::IpcMessage* reply) {
  if (reply != nullptr) platform::SetBody(*reply, kErrorReply);
}

// Finds the host's callback for the request, or tells why there is none.
ZuCommandCallback FindCallback(platform::JsonReader& json, const Work& work,
                               size_t readable) {
  if (!json.Parse(work.text, work.length, readable)) {
    LogError("ZuHelperOSX.ProcessXpcRequest: no dictionary to process");
    return nullptr;
  }
  const std::optional<std::string> command = json.StringMember("CMD_");
  if (!command) {
    LogError("ZuHelperOSX.ProcessXpcRequest: no command message found");
    return nullptr;
  }
  const std::optional<ZuCommandCallback> callback = uiCmdMap.Find(*command);
  if (!callback) {
    LogError(
        "ZuHelperOSX.ProcessXpcRequest: no command %s in uiCmdMap - dropped "
        "message since no callback found in dictionary",
        command->c_str());
    return nullptr;
  }
  if (*callback == nullptr) {
    LogError(
        "ZuHelperOSX.ProcessXpcRequest: func pointer conversion failed for "
        "command %s - dropped message",
        command->c_str());
  }
  return *callback;
}

// Puts a larger buffer, as the callback asked for in `work.length`, in place of
// the one it has; the request text goes along. False when memory is short.
bool Grow(Work& work, HeapBuffer& heap, uint32_t request_length) {
  const uint32_t size = std::min(work.length, kMaxReplyLength) + 1;
  work.length = request_length;
  HeapBuffer larger;
  if (!Allocate(larger, size)) {
    LogError(
        "ZuHelperOSX.ProcessXpcRequest: error re-allocating xpcMessage of "
        "length %zu",
        size_t{size});
    return false;
  }
  // "Larger" by the callback's word: after a request of the greatest size the
  // limit makes it smaller. Everything behind the text is zeroed, because the
  // heap may still hold another client's bytes.
  const size_t text =
      ::strnlen(work.text, std::min<size_t>(work.capacity, size));
  std::memcpy(larger.memory.get(), work.text, text);
  std::memset(larger.memory.get() + text, 0, size + 1 - text);
  heap = std::move(larger);
  work.text = heap.memory.get();
  work.capacity = size;
  return true;
}

}  // namespace

void RequestProcessor::ProcessXpcRequest(const platform::IpcMessage& message,
                                         platform::IpcMessage* reply) {
  const size_t size = platform::BodySize(message);
  if (size == 0 || size > kMaxRequestSize) {
    LogError(
        "ZuHelperOSX.ProcessXpcRequest: received bad message, length = %zu",
        size);
    SetError(reply);
    return;
  }
  const auto request_length = static_cast<uint32_t>(size);
  Work work{fixed_.data(), kFixedCapacity, request_length};
  size_t readable = fixed_.size();
  if (size > kFixedCapacity) {
    work.capacity = request_length + 1;
    readable = work.capacity + 1 + platform::kJsonTail;
    if (heap_.capacity < work.capacity && !Allocate(heap_, work.capacity)) {
      LogError(
          "< ZuHelperOSX.ProcessXpcRequest: error allocating xpcMessage of "
          "length %zu",
          size_t{work.capacity});
      return;
    }
    work.text = heap_.memory.get();
  }
  platform::CopyBody(message, work.text);
  // The terminator, and nothing of an earlier request behind it.
  std::memset(work.text + size, 0, readable - size);

  // Text with a NUL inside is not JSON, so no callback sees what follows one.
  if (const auto callback = FindCallback(json_, work, readable)) {
    callback(work.text, work.capacity, &work.length);
    if (work.length > work.capacity) {
      if (!Grow(work, heap_, request_length)) {
        SetError(reply);
        return;
      }
      callback(work.text, work.capacity, &work.length);
    }
    work.length = std::min(work.length, work.capacity);
    work.text[work.length] = '\0';
  }
  // Without a callback this is still the request, which is echoed.
  if (reply != nullptr) platform::SetBody(*reply, work.text);
}

void RequestProcessor::Trim() {
  heap_ = {};
  json_.Trim();
}

}  // namespace zu::server
