// The executable that a process runs.
#ifndef ZU_PLATFORM_LINUX_SIGNING_PROCESS_CODE_H_
#define ZU_PLATFORM_LINUX_SIGNING_PROCESS_CODE_H_

#include <cstdint>
#include <optional>

#include "platform/ipc.h"
#include "support/file_descriptor.h"

namespace zu::platform {

class ProcessCode {
 public:
  // Opens the executable of a process and proves that the process was still
  // the one that was meant when the file was already open. Absent when there
  // is no such process, or nothing that it runs (a zombie, a kernel thread).
  // `process.descriptor` is not needed after the call; without one, an
  // identifier that was given to another process before the call goes unseen.
  static std::optional<ProcessCode> Open(const ProcessReference& process);

  // The open file, -1 when there is one but we may not read it. It stays the
  // same file when its name is deleted or given to another.
  int executable() const { return executable_.get(); }

  enum class State {
    kRunning,  // The process lives and runs the file that was opened.
    kEnded,
    kReplaced,  // It runs something else by now.
  };
  State CurrentState() const;

 private:
  ProcessCode() = default;
  bool IsAlive() const;

  int32_t pid_ = 0;
  FileDescriptor descriptor_;  // A pidfd; invalid where the kernel has none.
  uint64_t start_time_ = 0;    // Then: since boot, in clock ticks.
  FileDescriptor executable_;
};

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_PROCESS_CODE_H_
