// What it costs a host to tell the watchdog that it is alive.

#include <atomic>
#include <chrono>

#include "ZuHelper.h"
#include "harness.h"

namespace zu::bench {
namespace {

constexpr char kSummary[] =
    "Calls ZuDeadLockWatch in a loop, beside the relaxed atomic operation "
    "that\n"
    "it cannot do without.";
constexpr int kCalls = 5'000'000;

const std::vector<std::string> kNames = {"atomic", "watch"};
const std::vector<std::string> kRows = {"relaxed atomic or", "ZuDeadLockWatch"};

std::atomic<uint32_t> g_flags{0};

// Nanoseconds a call.
template <typename Call>
double Time(Call call) {
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < kCalls; ++i) call();
  return std::chrono::duration<double, std::nano>(
             std::chrono::steady_clock::now() - begin)
             .count() /
         kCalls;
}

double Measure(bool watch) {
  if (watch) return Time([] { ZuDeadLockWatch(); });
  return Time([] { g_flags.fetch_or(0x40, std::memory_order_relaxed); });
}

int Run(const Options& options) {
  if (PinToOneProcessor() < 0) return 1;
  std::vector<std::string> rows;
  std::vector<bool> is_watch;
  for (size_t row = 0; row < kRows.size(); ++row) {
    if (!options.Wants(kNames[row])) continue;
    rows.push_back(kRows[row]);
    is_watch.push_back(row == 1);
  }
  Table table("Keep-alive", "ns", rows, {"one thread"});
  if (!table.Measure(options.rounds, [&](size_t row, size_t /*column*/) {
        return std::optional(Measure(is_watch[row]));
      })) {
    return 1;
  }
  std::vector<Goal> goals;
  if (rows.size() == kRows.size()) {
    table.Print({0});
    goals.push_back(
        {.text = "a call, compared with the atomic operation",
         .limit = 2,
         .figures = {{"", table.MedianOf(1, 0) / table.MedianOf(0, 0)}}});
  } else {
    table.Print({});
  }
  PrintGoals(goals);
  if (options.json_file.empty()) return 0;
  return WriteJson(options.json_file, "watchdog", {&table}, goals) ? 0 : 1;
}

}  // namespace
}  // namespace zu::bench

int main(int argc, char** argv) {
  int exit_code = 0;
  const auto options = zu::bench::ParseOptions(argc, argv, zu::bench::kSummary,
                                               zu::bench::kNames, exit_code);
  return options ? zu::bench::Run(*options) : exit_code;
}
