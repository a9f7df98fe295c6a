// The client program of a peer: carries out the benchmark's commands. All
// peers are driven by this code: one thread a connection, each with one
// request under way.

#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <numeric>
#include <string_view>
#include <thread>
#include <vector>

#include "aligned_buffer.h"
#include "peer.h"

namespace zu::bench {
namespace {

using Clock = std::chrono::steady_clock;

// However short the time, so that a slow peer's figure is not one exchange's.
constexpr uint64_t kLeastExchanges = 3;

// The request of every peer: a command for the agent's server, so that all
// carry the same bytes. On a cache line's start, because copies from and to
// other places can be several times slower.
class Request {
 public:
  bool Resize(size_t size) {
    static constexpr std::string_view kHead = R"({"CMD_":"ECHO","PAD":")";
    static constexpr std::string_view kTail = R"("})";
    if (size < kHead.size() + kTail.size() || size > kMaxBody) return false;
    text_ = MakeAlignedBuffer(size);
    if (!text_) return false;
    size_ = size;
    char* const pad = std::copy(kHead.begin(), kHead.end(), text_.get());
    char* const tail = text_.get() + size - kTail.size();
    // Letters only; pieces of the text that change places are noticed.
    for (char* c = pad; c != tail; ++c) {
      *c = static_cast<char>('a' + ((c - pad) * 7 + (c - pad) / 26) % 26);
    }
    std::copy(kTail.begin(), kTail.end(), tail);
    return true;
  }
  [[nodiscard]] std::string_view text() const { return {text_.get(), size_}; }

 private:
  AlignedBuffer text_;
  size_t size_ = 0;
};

uint64_t Nanoseconds(Clock::duration duration) {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count());
}

class Driver {
 public:
  explicit Driver(std::string address) : address_(std::move(address)) {}

  Outcome Run(const Command& command) {
    if (request_.text().size() != command.size &&
        !request_.Resize(command.size)) {
      std::fprintf(stderr, "no request of %zu bytes\n",
                   static_cast<size_t>(command.size));
      return {};
    }
    const std::chrono::nanoseconds duration(command.duration_ns);
    if (command.kind == Command::Kind::kConnect) return Admit(duration);
    return Echo(command.clients, duration);
  }

 private:
  Outcome Admit(std::chrono::nanoseconds duration) {
    Outcome outcome;
    const Clock::time_point start = Clock::now();
    Clock::duration elapsed{};
    while (outcome.exchanges < kLeastExchanges ||
           Clock::now() - start < duration) {
      const Clock::time_point connecting = Clock::now();
      const Connection connection = Connect(address_);
      if (!connection || !EchoesAll(connection)) return {};
      elapsed += Clock::now() - connecting;  // Closing does not count.
      ++outcome.exchanges;
    }
    outcome.elapsed_ns = Nanoseconds(elapsed);
    return outcome;
  }

  Outcome Echo(size_t clients, std::chrono::nanoseconds duration) {
    // Just as many, since some servers pay for idle connections too.
    if (connections_.size() > clients) connections_.resize(clients);
    while (connections_.size() < clients) {
      connections_.push_back(Connect(address_));
      if (!connections_.back()) {
        connections_.pop_back();
        return {};
      }
    }
    std::vector<uint64_t> exchanges(clients, 0);
    Clock::time_point start;
    std::barrier begin(static_cast<std::ptrdiff_t>(clients),
                       [&start]() noexcept { start = Clock::now(); });
    const auto run = [&](size_t index) {
      const Connection& connection = connections_[index];
      // Memory that this size needs is touched here, not while it counts.
      const bool good = EchoesAll(connection) && EchoesAll(connection);
      begin.arrive_and_wait();
      if (!good) return;
      uint64_t count = 0;
      do {
        if (connection(request_.text()).size() != request_.text().size()) {
          return;
        }
        ++count;
      } while (count < kLeastExchanges || Clock::now() - start < duration);
      exchanges[index] = count;
    };
    std::vector<std::thread> threads;
    for (size_t i = 1; i < clients; ++i) threads.emplace_back(run, i);
    run(0);
    for (std::thread& thread : threads) thread.join();
    const uint64_t elapsed = Nanoseconds(Clock::now() - start);
    if (std::count(exchanges.begin(), exchanges.end(), 0) != 0) {
      std::fprintf(stderr, "a client got no reply or a wrong one\n");
      return {};
    }
    return {std::accumulate(exchanges.begin(), exchanges.end(), uint64_t{0}),
            elapsed};
  }

  bool EchoesAll(const Connection& connection) const {
    return connection(request_.text()) == request_.text();
  }

  const std::string address_;
  Request request_;
  std::vector<Connection> connections_;
};

}  // namespace
}  // namespace zu::bench

int main(int argc, char** argv) {
  using zu::bench::Command;
  using zu::bench::Outcome;
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s ADDRESS\n", argv[0]);
    return 2;
  }
  zu::bench::Driver driver(argv[1]);
  Command command;
  while (::read(STDIN_FILENO, &command, sizeof command) == sizeof command) {
    const Outcome outcome = driver.Run(command);
    if (::write(STDOUT_FILENO, &outcome, sizeof outcome) != sizeof outcome) {
      return 1;
    }
  }
  return 0;
}
