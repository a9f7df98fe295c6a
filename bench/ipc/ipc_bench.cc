// Compares the agent's server with other ways to exchange messages between two
// processes of one machine.

#include <signal.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "harness.h"
#include "program.h"
#include "scratch_directory.h"

namespace zu::bench {
namespace {

constexpr char kSummary[] =
    "usage: bench_ipc [OPTION...]\n\n"
    "Measures round trips, requests per second and admission of the agent's\n"
    "server and of its peers, all on one processor, and compares the medians.\n"
    "The agent's server needs what scripts/bench sets up around this program.";

struct Peer {
  const char* name;   // For --only, and in the programs' names.
  const char* label;  // In the tables.
};
constexpr Peer kPeers[] = {
    {"epoll", "bare epoll echo (limit)"},  {"sdbus", "sd-bus peer to peer"},
    {"sdbus_event", "the same, sd-event"}, {"dbus", "D-Bus daemon"},
    {"grpc", "gRPC, Unix socket"},         {"agent", "agent server (ours)"},
};

struct Setting {
  const char* label;
  uint64_t value;
};
constexpr Setting kSizes[] = {{"100 B", 100},
                              {"2 KiB", 2048},
                              {"64 KiB", 65536},
                              {"1 MiB", 1048576},
                              {"5 MiB", kMaxBody}};
constexpr Setting kClients[] = {
    {"1 client", 1}, {"8 clients", 8}, {"64 clients", 64}};
constexpr Setting kAdmissions[] = {{"one client", 1}};
constexpr uint64_t kSmall = 100;  // Bytes, where it is not about size.

constexpr uint64_t kShortNs = 60'000'000;
constexpr uint64_t kLongNs = 200'000'000;

template <size_t kCount>
std::vector<std::string> Labels(const Setting (&settings)[kCount]) {
  std::vector<std::string> labels;
  for (const Setting& setting : settings) labels.emplace_back(setting.label);
  return labels;
}

// A goal about ratios between ours and a peer.
struct RatioGoal {
  const char* text;
  const char* peer;
  enum { kTimeRatio, kTimesFaster, kRateRatio } kind;
  double limit;
  size_t first_column;  // Of the round trips, or of the rates.
  size_t last_column;
};
constexpr RatioGoal kRatioGoals[] = {
    {"round trip / sd-bus peer to peer, every size", "sdbus",
     RatioGoal::kTimeRatio, 1.0, 0, 4},
    {"round trip / bare echo, 2 KiB", "epoll", RatioGoal::kTimeRatio, 1.7, 1,
     1},
    {"round trip / bare echo, 5 MiB", "epoll", RatioGoal::kTimeRatio, 1.3, 4,
     4},
    {"times faster than gRPC, every size", "grpc", RatioGoal::kTimesFaster, 5,
     0, 4},
    {"times faster than the D-Bus daemon, every size", "dbus",
     RatioGoal::kTimesFaster, 3, 0, 4},
    {"requests a second / sd-bus with sd-event, 64 clients", "sdbus_event",
     RatioGoal::kRateRatio, 1.7, 2, 2},
};
constexpr double kAdmissionLimitUs = 1000;

class IpcBench {
 public:
  explicit IpcBench(const Options& options) : options_(options) {
    for (const Peer& peer : kPeers) {
      if (options_.Wants(peer.name)) peers_.push_back(&peer);
    }
  }

  int Run() {
    const int processor = PinToOneProcessor();
    if (processor < 0) {
      std::perror("sched_setaffinity");
      return 1;
    }
    if (!Start()) return 1;
    std::printf("All processes on processor %d, medians of %d rounds.\n",
                processor, options_.rounds);
    Table trips = MakeTable("Round trip, one client", "us", Labels(kSizes));
    Table rates =
        MakeTable("Requests of 100 B a second", "1/s", Labels(kClients));
    Table admissions =
        MakeTable("Admission (connect to first reply, less a round trip)", "us",
                  Labels(kAdmissions));
    // One after the other, so that round trips are measured while no server has
    // other clients.
    const bool measured = trips.Measure(options_.rounds, [this](size_t row,
                                                                size_t column) {
      return RoundTrip(row, kSizes[column].value);
    }) && admissions.Measure(options_.rounds, [this](size_t row, size_t) {
      return Admission(row);
    }) && rates.Measure(options_.rounds, [this](size_t row, size_t column) {
      return Rate(row, kClients[column].value);
    });
    if (!measured) return 1;
    const std::optional<size_t> limit = RowOf("epoll");
    const std::optional<size_t> sdbus = RowOf("sdbus");
    trips.Print({limit});
    rates.Print({limit, sdbus});
    admissions.Print({});
    const std::vector<Goal> goals = Goals(trips, rates, admissions);
    PrintGoals(goals);
    if (options_.json_file.empty()) return 0;
    return WriteJson(options_.json_file, "ipc", {&trips, &rates, &admissions},
                     goals)
               ? 0
               : 1;
  }

 private:
  [[nodiscard]] bool Start() {
    std::error_code error;
    const std::string here =
        std::filesystem::read_symlink("/proc/self/exe", error)
            .replace_filename("bench_ipc_")
            .string();
    if (error || scratch_.path().empty()) {
      std::perror("cannot prepare");
      return false;
    }
    for (const Peer* peer : peers_) {
      const std::string program = here + peer->name;
      const std::string address = scratch_.path() + "/" + peer->name;
      // The pinning is inherited.
      auto server = std::make_unique<Program>(program + "_server", address);
      if (!server->WaitUntilReady()) {
        std::fprintf(stderr, "%s: its server did not start\n", peer->label);
        return false;
      }
      servers_.push_back(std::move(server));
      clients_.push_back(
          std::make_unique<Program>(program + "_client", address));
    }
    return true;
  }

  [[nodiscard]] Table MakeTable(const char* title, const char* unit,
                                std::vector<std::string> columns) const {
    std::vector<std::string> rows;
    for (const Peer* peer : peers_) rows.emplace_back(peer->label);
    return {title, unit, std::move(rows), std::move(columns)};
  }

  [[nodiscard]] std::optional<size_t> RowOf(std::string_view name) const {
    for (size_t row = 0; row < peers_.size(); ++row) {
      if (peers_[row]->name == name) return row;
    }
    return std::nullopt;
  }

  // Microseconds an exchange.
  [[nodiscard]] std::optional<double> Exchange(size_t row,
                                               const Command& command) {
    const std::optional<Outcome> outcome = clients_[row]->Run(command);
    if (!outcome) return std::nullopt;
    return static_cast<double>(outcome->elapsed_ns) / 1e3 /
           static_cast<double>(outcome->exchanges);
  }

  [[nodiscard]] std::optional<double> RoundTrip(size_t row, uint64_t size) {
    return Exchange(row, {Command::Kind::kEcho, 1, size, kShortNs});
  }

  [[nodiscard]] std::optional<double> Rate(size_t row, uint64_t clients) {
    const std::optional<double> time =
        Exchange(row, {Command::Kind::kEcho, clients, kSmall, kLongNs});
    if (!time) return std::nullopt;
    return 1e6 / *time;
  }

  [[nodiscard]] std::optional<double> Admission(size_t row) {
    const std::optional<double> trip = RoundTrip(row, kSmall);
    const std::optional<double> whole =
        Exchange(row, {Command::Kind::kConnect, 1, kSmall, kShortNs});
    if (!trip || !whole) return std::nullopt;
    return *whole - *trip;
  }

  [[nodiscard]] std::vector<Goal> Goals(const Table& trips, const Table& rates,
                                        const Table& admissions) const {
    std::vector<Goal> goals;
    const std::optional<size_t> ours = RowOf("agent");
    if (!ours) return goals;
    for (const RatioGoal& row : kRatioGoals) {
      const std::optional<size_t> other = RowOf(row.peer);
      if (!other) continue;
      const bool rate = row.kind == RatioGoal::kRateRatio;
      const bool at_most = row.kind == RatioGoal::kTimeRatio;
      const Table& table = rate ? rates : trips;
      const Setting* settings = rate ? kClients : kSizes;
      Goal goal{
          row.text, at_most ? Bound::kAtMost : Bound::kAtLeast, row.limit, {}};
      for (size_t i = row.first_column; i <= row.last_column; ++i) {
        const double ratio =
            table.MedianOf(*ours, i) / table.MedianOf(*other, i);
        goal.figures.push_back(
            {settings[i].label,
             row.kind == RatioGoal::kTimesFaster ? 1 / ratio : ratio});
      }
      goals.push_back(std::move(goal));
    }
    goals.push_back({"admission of a small signed client, us",
                     Bound::kAtMost,
                     kAdmissionLimitUs,
                     {{"", admissions.MedianOf(*ours, 0)}}});
    return goals;
  }

  const Options options_;
  std::vector<const Peer*> peers_;
  ScratchDirectory scratch_;
  // Members are destroyed from the last to the first: clients go first.
  std::vector<std::unique_ptr<Program>> servers_;
  std::vector<std::unique_ptr<Program>> clients_;
};

}  // namespace
}  // namespace zu::bench

int main(int argc, char** argv) {
  std::vector<std::string> names;
  for (const auto& peer : zu::bench::kPeers) names.emplace_back(peer.name);
  int exit_code = 0;
  const auto options = zu::bench::ParseOptions(argc, argv, zu::bench::kSummary,
                                               names, exit_code);
  if (!options) return exit_code;
  // A program that has died shows in the exchange with it.
  ::signal(SIGPIPE, SIG_IGN);
  return zu::bench::IpcBench(*options).Run();
}
