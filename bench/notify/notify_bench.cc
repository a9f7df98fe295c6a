// How long it takes from a post to the observer's callback in another process,
// beside the least that inotify takes to wake a process.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "harness.h"
#include "platform/notification.h"
#include "support/file_descriptor.h"

namespace zu::bench {
namespace {

constexpr char kSummary[] =
    "Measures the time from a post to the callback in another process.";
constexpr char kName[] = "bench.notify";
constexpr char kDirectory[] = "/run/bench";
constexpr char kFile[] = "/run/bench/kept";
constexpr char kNewFile[] = "/run/bench/new";
// In a sample; what the processor does beside us falls out of the median.
constexpr size_t kPosts = 300;
// For the observer to be waiting again.
constexpr timespec kPause{.tv_sec = 0, .tv_nsec = 100'000};

constexpr int kLimit_ms = 5000;  // Something is wrong after that.

enum Row : size_t { kInotify, kNew, kLibrary };
const std::vector<std::string> kNames = {"inotify", "new_file", "library"};
const std::vector<std::string> kRows = {
    "bare inotify", "bare inotify, new file", "notification"};

double Now_us() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e6 +
         static_cast<double>(now.tv_nsec) / 1e3;
}

// In memory that both processes see.
struct Shared {
  std::atomic<double> called_at_us{0};
  int acknowledge = -1;  // The pipe's end that the observer writes to.
};
Shared* g_shared = nullptr;

void Called() {
  g_shared->called_at_us = Now_us();
  (void)RetryOnInterrupt([] { return ::write(g_shared->acknowledge, "", 1); });
}

// Blocks in read, which a change of the file ends.
[[noreturn]] void ObserveFile(const char* path, uint32_t changes) {
  const int inotify = ::inotify_init1(IN_CLOEXEC);
  ::inotify_add_watch(inotify, path, changes);
  Called();
  alignas(inotify_event) char buffer[4096];
  while (::read(inotify, buffer, sizeof buffer) > 0) Called();
  ::_exit(1);
}

[[noreturn]] void ObserveName() {
  int32_t token = platform::kNoNotificationToken;
  if (!platform::RegisterNotification(kName, token, &Called)) ::_exit(1);
  Called();
  for (;;) ::pause();
}

// A /run of our own, which holds the notification directory.
bool EnterNamespace() {
  const std::string map = "0 " + std::to_string(::getuid()) + " 1";
  if (::unshare(CLONE_NEWNS) != 0) {
    if (::unshare(CLONE_NEWNS | CLONE_NEWUSER) != 0) return false;
    std::ofstream("/proc/self/uid_map") << map;
  }
  return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("bench", "/run", "tmpfs", 0, "mode=755") == 0;
}

class NotifyBench {
 public:
  explicit NotifyBench(Options options) : options_(std::move(options)) {}
  ~NotifyBench() {
    for (const pid_t child : children_) {
      ::kill(child, SIGKILL);
      ::waitpid(child, nullptr, 0);
    }
  }
  NotifyBench(const NotifyBench&) = delete;
  NotifyBench& operator=(const NotifyBench&) = delete;

  int Run() {
    if (!Prepare()) {
      std::perror("cannot prepare");
      return 1;
    }
    std::vector<std::string> rows;
    for (size_t row = 0; row < kRows.size(); ++row) {
      if (!options_.Wants(kNames[row])) continue;
      rows.push_back(kRows[row]);
      kinds_.push_back(static_cast<Row>(row));
      if (!Start(kinds_.back())) return 1;
    }
    Table table("Post to callback", "us", rows, {"latency"});
    if (!table.Measure(options_.rounds, [this](size_t row, size_t /*column*/) {
          return Measure(kinds_[row]);
        })) {
      return 1;
    }
    table.Print({RowOf(kInotify), RowOf(kNew)});
    std::vector<Goal> goals;
    if (const auto bare = RowOf(kNew), library = RowOf(kLibrary);
        bare && library) {
      goals.push_back(
          {"times bare inotify with a new file",
           Bound::kAtMost,
           1.5,
           {{"", table.MedianOf(*library, 0) / table.MedianOf(*bare, 0)}}});
    }
    PrintGoals(goals);
    if (options_.json_file.empty()) return 0;
    return WriteJson(options_.json_file, "notify", {&table}, goals) ? 0 : 1;
  }

 private:
  std::optional<size_t> RowOf(Row kind) const {
    const auto found = std::find(kinds_.begin(), kinds_.end(), kind);
    if (found == kinds_.end()) return std::nullopt;
    return static_cast<size_t>(found - kinds_.begin());
  }

  bool Prepare() {
    if (PinToOneProcessor() < 0 || !EnterNamespace()) return false;
    void* const memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    int ends[2];
    if (memory == MAP_FAILED || ::pipe2(ends, O_CLOEXEC) != 0) return false;
    g_shared = new (memory) Shared;
    g_shared->acknowledge = ends[1];
    acknowledged_.reset(ends[0]);
    if (::mkdir(kDirectory, 0700) != 0) return false;
    file_.reset(::open(kFile, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    return file_.valid();
  }

  // False when it does not get ready.
  bool Start(Row row) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (row == kInotify) ObserveFile(kFile, IN_MODIFY);
      if (row == kNew) ObserveFile(kDirectory, IN_CREATE);
      ObserveName();
    }
    if (child > 0) children_.push_back(child);
    return child > 0 && Await();
  }

  bool Await() {
    char byte = 0;
    pollfd source{acknowledged_.get(), POLLIN, 0};
    if (::poll(&source, 1, kLimit_ms) != 1) return false;
    return RetryOnInterrupt(
               [&] { return ::read(acknowledged_.get(), &byte, 1); }) == 1;
  }

  bool Post(Row row) const {
    if (row == kInotify) return ::pwrite(file_.get(), "", 1, 0) == 1;
    if (row == kNew) {
      return ::mknod(kNewFile, S_IFREG, 0) == 0 && ::unlink(kNewFile) == 0;
    }
    return platform::PostNotification(kName) == 0;
  }

  std::optional<double> Measure(Row row) {
    std::vector<double> times;
    for (size_t i = 0; i < kPosts; ++i) {
      ::nanosleep(&kPause, nullptr);
      const double start = Now_us();
      if (!Post(row) || !Await()) return std::nullopt;
      times.push_back(g_shared->called_at_us - start);
    }
    return Median(std::move(times));
  }

  const Options options_;
  std::vector<Row> kinds_;
  std::vector<pid_t> children_;
  FileDescriptor acknowledged_;
  FileDescriptor file_;
};

}  // namespace
}  // namespace zu::bench

int main(int argc, char** argv) {
  int exit_code = 0;
  const auto options = zu::bench::ParseOptions(argc, argv, zu::bench::kSummary,
                                               zu::bench::kNames, exit_code);
  if (!options) return exit_code;
  return zu::bench::NotifyBench(*options).Run();
}
