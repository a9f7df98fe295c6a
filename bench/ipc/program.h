// A peer's program, running as a child of the benchmark.
#ifndef ZU_BENCH_IPC_PROGRAM_H_
#define ZU_BENCH_IPC_PROGRAM_H_

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>

#include "peer.h"
#include "support/file_descriptor.h"

namespace zu::bench {

// Talks to the program over its standard input and output. The program is
// ended and reaped with this object: asked first, by the end of its input, and
// killed when it does not follow. It also dies with the benchmark.
class Program {
 public:
  // Runs `path` with one argument. Problems are told on standard error; a
  // program that did not start fails its first exchange.
  Program(const std::string& path, const std::string& address);
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  // Waits until a server reports that it is ready.
  [[nodiscard]] bool WaitUntilReady();
  // Has a client carry out a command.
  [[nodiscard]] std::optional<Outcome> Run(const Command& command);

 private:
  [[nodiscard]] bool Read(void* destination, size_t size);

  pid_t pid_ = -1;
  FileDescriptor input_;
  FileDescriptor output_;
};

}  // namespace zu::bench

#endif  // ZU_BENCH_IPC_PROGRAM_H_
