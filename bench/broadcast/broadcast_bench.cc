// Compares a broadcast of the agent's server with the bare cost of as many
// sends. What is timed is the host's call: the clients read afterwards.

#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "ZuHelper.h"
#include "harness.h"
#include "program.h"
#include "scratch_directory.h"
#include "unix_socket.h"

namespace zu::bench {
namespace {

constexpr char kSummary[] =
    "usage: bench_broadcast [OPTION...]\n\n"
    "Measures the call that broadcasts one message to all clients, beside a\n"
    "loop that sends it over as many stream sockets, all on one processor.\n"
    "The agent's server needs what scripts/bench sets up around this program.";

// Everything fits the sockets' buffers, so that no send has to wait.
struct Size {
  const char* label;
  size_t value;
};
constexpr Size kSizes[] = {{"200 B", 200}, {"64 KiB", 65536}};

// Ascending: clients are added and stay. A sample is the mean of the calls.
struct Crowd {
  const char* label;
  size_t clients;
  int calls;
};
constexpr Crowd kCrowds[] = {
    {"1 client", 1, 200}, {"100 clients", 100, 20}, {"1000 clients", 1000, 4}};

constexpr double kLimit = 1.5;

// One way to send, with the program that holds the receiving ends.
class Sender {
 public:
  Sender(const std::string& program, const std::string& address)
      : receivers_(program, address) {}
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;
  virtual ~Sender() = default;

  // Has that many clients connected.
  [[nodiscard]] virtual bool Connect(size_t clients) {
    return Receive(clients, 0);
  }
  // Sends to all of them.
  [[nodiscard]] virtual bool Send(const std::vector<char>& body) = 0;
  // Has each of them read one message.
  [[nodiscard]] bool Receive(size_t clients, size_t size) {
    return receivers_.Run({Command::Kind::kReceive, clients, size, 0})
        .has_value();
  }

 private:
  Program receivers_;
};

class AgentSender : public Sender {
 public:
  explicit AgentSender(const std::string& program) : Sender(program, "-") {
    ZuStartServer();
  }
  ~AgentSender() override { ZuStopServer(); }

  bool Send(const std::vector<char>& body) override {
    return ZuBroadcastMessageWithNoReply(
               body.data(), static_cast<int32_t>(body.size())) == 0;
  }
};

class BareSender : public Sender {
 public:
  BareSender(const std::string& program, const std::string& address)
      : Sender(program, address), listener_(Listen(address)) {}

  // In steps that the listener's queue has room for.
  bool Connect(size_t clients) override {
    constexpr size_t kStep = 100;
    while (clients_.size() < clients) {
      const size_t step = std::min(clients, clients_.size() + kStep);
      if (!Sender::Connect(step)) return false;
      while (clients_.size() < step) {
        clients_.emplace_back(
            ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!clients_.back().valid()) return false;
      }
    }
    return true;
  }

  bool Send(const std::vector<char>& body) override {
    for (const FileDescriptor& client : clients_) {
      if (::send(client.get(), body.data(), body.size(),
                 MSG_DONTWAIT | MSG_NOSIGNAL) !=
          static_cast<ssize_t>(body.size())) {
        return false;
      }
    }
    return true;
  }

 private:
  const FileDescriptor listener_;
  std::vector<FileDescriptor> clients_;
};

// Microseconds a call.
std::optional<double> Measure(Sender& sender, const Crowd& crowd, size_t size) {
  using Clock = std::chrono::steady_clock;
  const std::vector<char> body(size, 'b');
  Clock::duration elapsed{};
  for (int i = 0; i < crowd.calls; ++i) {
    const Clock::time_point start = Clock::now();
    if (!sender.Send(body)) return std::nullopt;
    elapsed += Clock::now() - start;
    if (!sender.Receive(crowd.clients, size)) return std::nullopt;
  }
  return std::chrono::duration<double, std::micro>(elapsed).count() /
         crowd.calls;
}

// Both ends of every connection take a descriptor. Children inherit this.
void AllowManyFiles() {
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
}

int Run(const Options& options) {
  const ScratchDirectory scratch;
  std::error_code error;
  const std::string here =
      std::filesystem::read_symlink("/proc/self/exe", error)
          .replace_filename("bench_broadcast_")
          .string();
  const int processor = PinToOneProcessor();
  if (error || scratch.path().empty() || processor < 0) {
    std::perror("cannot prepare");
    return 1;
  }
  AllowManyFiles();
  ZuDeadLockDisable();  // This host has nothing to report.
  BareSender bare(here + "bare_client", scratch.path() + "/bare");
  AgentSender agent(here + "agent_client");
  Sender* const senders[] = {&bare, &agent};

  std::printf("All processes on processor %d, medians of %d rounds.\n",
              processor, options.rounds);
  std::vector<Table> tables;
  Goal goal{"broadcast / bare sends, 100 and 1000 clients",
            Bound::kAtMost,
            kLimit,
            {}};
  for (const Crowd& crowd : kCrowds) {
    for (Sender* const sender : senders) {
      if (!sender->Connect(crowd.clients)) return 1;
    }
    Table& table = tables.emplace_back(
        std::string("One message to ") + crowd.label, "us",
        std::vector<std::string>{"bare sends (limit)", "agent server (ours)"},
        std::vector<std::string>{kSizes[0].label, kSizes[1].label});
    if (!table.Measure(options.rounds, [&](size_t row, size_t column) {
          return Measure(*senders[row], crowd, kSizes[column].value);
        })) {
      return 1;
    }
    table.Print({0});
    // With one client the copy of the message weighs as much as its send.
    if (crowd.clients == 1) continue;
    for (size_t i = 0; i < std::size(kSizes); ++i) {
      goal.figures.push_back({std::string(kSizes[i].label) + ", " + crowd.label,
                              table.MedianOf(1, i) / table.MedianOf(0, i)});
    }
  }
  PrintGoals({goal});
  if (options.json_file.empty()) return 0;
  std::vector<const Table*> all;
  for (const Table& table : tables) all.push_back(&table);
  return WriteJson(options.json_file, "broadcast", all, {goal}) ? 0 : 1;
}

}  // namespace
}  // namespace zu::bench

int main(int argc, char** argv) {
  int exit_code = 0;
  // Nobody can be left out: one is the other's measure.
  const auto options =
      zu::bench::ParseOptions(argc, argv, zu::bench::kSummary, {}, exit_code);
  if (!options) return exit_code;
  // A program that has died shows in the exchange with it.
  ::signal(SIGPIPE, SIG_IGN);
  return zu::bench::Run(*options);
}
