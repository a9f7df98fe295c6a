// One way to exchange messages, as a server program and a client program.
//
// A peer defines Serve and Connect (in one file or two); serve_main.cc and
// drive_main.cc make the programs. The benchmark starts both and talks to them
// over their standard input and output.
#ifndef ZU_BENCH_IPC_PEER_H_
#define ZU_BENCH_IPC_PEER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace zu::bench {

// Largest body that is exchanged; peers with a limit of their own raise it.
inline constexpr size_t kMaxBody = 5242880;

// Echoes every client's requests at `address` (a path that does not exist yet)
// until standard input ends. Calls `report_ready` once clients can connect.
// False, with a message on standard error, when it cannot serve.
using ReportReady = std::function<void()>;
bool Serve(const std::string& address, const ReportReady& report_ready);

// One client. Sends the request and waits for the reply, which stays valid
// until the next call; a null view is a failure. A copy is the same client.
// Different clients are used by different threads.
using Connection = std::function<std::string_view(std::string_view request)>;

// A null function, with a message on standard error, when there is none.
Connection Connect(const std::string& address);

// What the benchmark asks of a client program, one after the other.
struct Command {
  enum class Kind : uint64_t {
    // `clients` connections exchange bodies of `size` bytes, each one request
    // at a time, for `duration_ns`.
    kEcho,
    // One new connection after the other exchanges one body of `size` bytes,
    // for `duration_ns`. The time from connecting to the reply counts.
    kConnect,
    // As many connections as `clients` take one message of `size` bytes each;
    // 0 only connects those that are missing. For the receivers of
    // bench/broadcast, who answer with one exchange.
    kReceive,
  };
  Kind kind = Kind::kEcho;
  uint64_t clients = 1;
  uint64_t size = 0;
  uint64_t duration_ns = 0;
};

// The answer: completed exchanges and the time they took. No exchange means
// that something failed; standard error has the reason.
struct Outcome {
  uint64_t exchanges = 0;
  uint64_t elapsed_ns = 0;
};

}  // namespace zu::bench

#endif  // ZU_BENCH_IPC_PEER_H_
